/*
 * Opening, closing and initialising a heap file.
 *
 * Opening never destroys content that another process could still need:
 *  - a file that is ready but damaged (header, size or nodes) is left
 *    untouched; the open fails with EUCLEAN and an MMF_CORRUPT event, and
 *    the owner of the store decides (mmf_unlink, then a new store);
 *  - a file longer than its current_bytes is a grow that stopped between
 *    ftruncate and the new current_bytes: the grow is finished, not the
 *    store reset;
 *  - only magic 0, or an initialisation whose process is dead, is
 *    (re)initialised.
 */
#include "mmf_impl.h"

#include "mmf/mmf_check.h"
#include "platform/crashpoint.h"
#include "platform/paths.h"
#include "platform/process.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace mmf_impl;

namespace {

constexpr key_t kCreationSemKey = 0xDDD5;

/*
 * The creator of the set holds this flock from semget to SETVAL, so that
 * a waiter can tell a creator still at work from one that died between
 * the two calls and left the set at 0 for ever.
 */
class creation_window {
public:
	creation_window()
	{
		mmf_mkdir_path("/var/tmp");
		fd_ = open(tolvar::path("/var/tmp/mmf_create_sem.lock").c_str(),
		    O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	}
	~creation_window()
	{
		if (fd_ >= 0)
			close(fd_);
	}
	creation_window(const creation_window &) = delete;
	creation_window &operator=(const creation_window &) = delete;
	void lock() { flock_fd(LOCK_EX); }
	bool try_lock() { return flock_fd(LOCK_EX | LOCK_NB); }

private:
	bool flock_fd(int how)
	{
		if (fd_ < 0)
			return true;	/* no lock file: the value decides */
		while (flock(fd_, how) != 0)
			if (errno != EINTR)
				return false;
		return true;
	}
	int fd_;
};

/* Never set: no semop has run on it and its value is still 0. */
bool never_initialised(int id)
{
	struct semid_ds ds;
	union {
		int val;
		struct semid_ds *buf;
	} arg;
	arg.buf = &ds;
	return semctl(id, 0, IPC_STAT, arg) == 0 && ds.sem_otime == 0 &&
	    semctl(id, 0, GETVAL) == 0;
}

/*
 * A set left at 0 by a creator killed before SETVAL blocks every later
 * creation.  Once the creator's window lock is free, a set that is still
 * untouched can only be such a one: set it to 1 here.
 */
void repair_uninitialised(int id)
{
	if (!never_initialised(id))
		return;
	creation_window w;
	if (!w.try_lock() || !never_initialised(id))
		return;
	if (semctl(id, 0, SETVAL, 1) == 0)
		log_event("MMF_CREATE_SEM_REPAIRED", __func__, __LINE__,
		    "creation semaphore 0x%x left at 0 by a dead creator; "
		    "set to 1", static_cast<unsigned>(kCreationSemKey));
}

int creation_sem()
{
	int id = semget(kCreationSemKey, 1, 0600);
	if (id >= 0)
		return id;
	/*
	 * IPC_EXCL: of two first creators only one sets the value to 1;
	 * the other finds the set and waits at semop until it is set.
	 */
	creation_window w;
	w.lock();
	id = semget(kCreationSemKey, 1, IPC_CREAT | IPC_EXCL | 0600);
	if (id >= 0) {
		TOLVAR_CRASH_POINT("mmf.creation_sem");
		MMF_ASSERT(semctl(id, 0, SETVAL, 1) == 0);
		return id;
	}
	id = semget(kCreationSemKey, 1, 0600);
	MMF_ASSERT(id >= 0);
	return id;
}

/*
 * The semaphore and the flock are held only while a store is opened.
 * A holder that dies gives them back (SEM_UNDO, close); one that hangs
 * would hold every later opener for ever, so waiting is bounded like the
 * wait for an initialiser: sixty seconds, then a fatal stop.
 */
void creation_sem_op(int id, short delta)
{
	struct sembuf op = {0, delta, SEM_UNDO};
	uint64_t start = now_ns();
	int interrupts = 0;
	for (;;) {
		struct timespec slice = {0, 10000000};
		if (semtimedop(id, &op, 1, delta < 0 ? &slice : nullptr) == 0)
			return;
		if (errno == EINTR) {
			MMF_ASSERT(++interrupts < 1000);
			continue;
		}
		MMF_ASSERT(errno == EAGAIN);
		MMF_ASSERT_TEXT(now_ns() - start < scaled_ns(60),
		    "total_sleeptime.tv_sec < 60");
		repair_uninitialised(id);
	}
}

void flock_bounded(int fd)
{
	uint64_t start = now_ns();
	while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
		MMF_ASSERT(errno == EWOULDBLOCK || errno == EINTR);
		MMF_ASSERT_TEXT(now_ns() - start < scaled_ns(60),
		    "total_sleeptime.tv_sec < 60");
		sleep_ns(1000000);
	}
}

uint64_t round_up(uint64_t v, uint64_t to)
{
	return to == 0 ? v : (v + to - 1) / to * to;
}

/* All counters and allocation statistics; not the lock word, the magic,
 * the layout or the created marker. */
void zero_stats(mmf_shared_info_t *si)
{
	si->allocated_bytes = 0;
	si->alloc_count = 0;
	si->free_count = 0;
	memset(si->allocs_by_class, 0, sizeof(si->allocs_by_class));
	memset(si->frees_by_class, 0, sizeof(si->frees_by_class));
	uint8_t *from = reinterpret_cast<uint8_t *>(&si->bad_header_count);
	uint8_t *to = reinterpret_cast<uint8_t *>(&si->created);
	memset(from, 0, static_cast<size_t>(to - from));
}

uint64_t file_size(mmf_t *m)
{
	struct stat st;
	if (fstat(m->fd, &st) != 0)
		return 0;
	return static_cast<uint64_t>(st.st_size);
}

/* Under the lock: lay a fresh store over the whole file. */
void initialise(mmf_t *m)
{
	mmf_shared_info_t *si = m->shared_info;
	si->reserved1 = si->reserved2 = si->sanity = 0;
	si->initializer = static_cast<uint32_t>(mmf_getpid());
	si->magic = MMF_MAGIC_INIT;
	si->version = MMF_VERSION;
	si->header_bytes = MMF_HEADER_BYTES;
	set_allocation_info(si, m->want_classes, m->want_sizes);
	if (mmf_init_test_hook != nullptr)
		mmf_init_test_hook();
	si->first_alloc_offset = round_up(MMF_HEADER_BYTES, m->page_size);
	si->common_offset = 0;
	si->common_len = 0;
	memset(si->free_heads, 0, sizeof(si->free_heads));
	zero_stats(si);
	si->raw = m->raw ? 1 : 0;
	uint64_t size = file_size(m);
	if (size < m->default_bytes) {
		MMF_ASSERT(ftruncate(m->fd, static_cast<off_t>(m->default_bytes)) == 0);
		size = m->default_bytes;
	}
	si->current_bytes = size;
	drop_regions(m);
	add_free_bytes(m, si->first_alloc_offset, size);
	zero_stats(si);
	m->stats = {};
	drop_regions(m);
	std::atomic_ref<uint32_t>(si->magic).store(MMF_MAGIC_READY);
}

bool refuse(mmf_t *m, const char *why)
{
	m->corrupt = true;
	log_event("MMF_CORRUPT", "mmf_create", __LINE__,
	    "%s: %s; store left untouched", m->name, why);
	meminfo_refresh(m);	/* the row carries the corrupt flag */
	mmf_errno = EUCLEAN;
	return false;
}

/*
 * Judge one copy of the header against the file size read after it: a
 * grower extends the file before it publishes current_bytes, so the size
 * read after the copy is never below the copy's current_bytes.  Reading
 * current_bytes again, live, would find a grow published in between and
 * refuse a healthy store.  A shrink publishes first and cuts the file
 * after: a size below the copy's is judged again on a fresh copy while
 * current_bytes moves.
 */
bool check_ready(mmf_t *m)
{
	struct mmf_check_report rep;
	for (int tries = 0;; tries++) {
		mmf_shared_info_t copy;
		memcpy(&copy, m->shared_info, sizeof(copy));
		TOLVAR_CRASH_POINT("mmf.open_check");
		uint64_t size = file_size(m);
		if (mmf_check_header(&copy, MMF_HEADER_BYTES, size, &rep) ==
		    MMF_CHECK_OK)
			return true;
		if (rep.status != MMF_CHECK_SIZE)
			break;
		if (size > copy.current_bytes)
			return true;	/* an unfinished grow, finished below */
		mmf_shared_info_t again;
		memcpy(&again, m->shared_info, sizeof(again));
		if (again.current_bytes == copy.current_bytes || tries >= 3)
			break;
	}
	return refuse(m, rep.detail);
}

/* Under the lock: adopt new classes when empty, check, finish a grow. */
bool adopt_check_finish(mmf_t *m, uint64_t size)
{
	mmf_shared_info_t *si = m->shared_info;
	/* Nothing is written before the nodes are known to tile. */
	if (strcmp(platform_progname(), "brindle") != 0 && !mmf_valid(m, false))
		return false;
	/* The check gives the grown space of an empty store back and cuts
	 * the file: the size read before it would finish a grow beyond
	 * the end of the file. */
	/* current_bytes sits at 4 mod 8 in the header: copy, never bind. */
	const uint64_t current = si->current_bytes;
	size = std::max(file_size(m), current);
	uint64_t used = 0;
	if (m->allocs_allowed && !lists_consistent(m, &used)) {
		log_event("MMF_LISTS_REBUILT", "mmf_create", __LINE__,
		    "%s: free lists disagree with the nodes; rebuilt", m->name);
		repair_after_dead_holder(m);	/* recounts allocated bytes */
	} else if (m->allocs_allowed && si->allocated_bytes != used) {
		/* The one counter the nodes tell; the statistics are left. */
		log_event("MMF_COUNTERS_RECOMPUTED", "mmf_create", __LINE__,
		    "%s: allocated bytes %llu, nodes in use hold %llu; "
		    "recomputed", m->name,
		    static_cast<unsigned long long>(si->allocated_bytes),
		    static_cast<unsigned long long>(used));
		si->allocated_bytes = used;
	}
	if (si->allocated_bytes == 0 && m->allocs_allowed) {
		uint32_t have[MMF_MAX_USER_CLASSES];
		uint8_t n = mmf_get_allocation_info(m, have);
		if (n != m->want_classes || !std::equal(have, have + n,
		    m->want_sizes)) {
			set_allocation_info(si, m->want_classes, m->want_sizes);
			repair_after_dead_holder(m);	/* relist by class */
		}
	}
	if (si->current_bytes < size) {
		log_event("MMF_GROW_FINISHED", "mmf_create", __LINE__,
		    "%s: grow from %llu to %llu finished", m->name,
		    static_cast<unsigned long long>(si->current_bytes),
		    static_cast<unsigned long long>(size));
		extend_area(m, size);
	}
	return !m->corrupt;
}

/* A ready store, checked under its lock. */
bool open_ready(mmf_t *m)
{
	mmf_lock(m);
	uint64_t size = file_size(m);
	if (!check_ready(m)) {
		mmf_unlock(m);
		return false;
	}
	bool ok = true;
	try {
		ok = adopt_check_finish(m, size);
	} catch (const mmf_damage &d) {
		note_damage(m, "mmf_create", d);
		ok = false;
	}
	mmf_unlock(m);
	if (!ok)
		return refuse(m, "nodes do not tile");
	return true;
}

/*
 * Bring the shared information to ready: wait for a live initialiser,
 * replace a dead one, or initialise ourselves.
 */
bool init_shared_info(mmf_t *m)
{
	mmf_shared_info_t *si = m->shared_info;
	uint64_t waited = 0, start = now_ns(), last_second = 0;
	for (;;) {
		uint32_t magic = std::atomic_ref<uint32_t>(si->magic).load();
		if (magic == MMF_MAGIC_READY) {
			if (!open_ready(m))
				return false;
			if (std::atomic_ref<uint32_t>(si->magic).load() ==
			    MMF_MAGIC_READY)
				return true;
			continue;
		}
		if (magic == MMF_MAGIC_INIT &&
		    si->initializer != static_cast<uint32_t>(mmf_getpid())) {
			waited = now_ns() - start;
			MMF_ASSERT_TEXT(waited < scaled_ns(60),
			    "total_sleeptime.tv_sec < 60");
			uint64_t second = waited / scaled_ns(1);
			if (second != last_second) {
				last_second = second;
				uint32_t who = si->initializer;
				if (!holder_alive(m, who)) {
					log_event("MMF_INIT_DEAD", __func__,
					    __LINE__, "%s: initialiser %u died;"
					    " initialising again", m->name, who);
					uint32_t expect = MMF_MAGIC_INIT;
					std::atomic_ref<uint32_t>(si->magic)
					    .compare_exchange_strong(expect, 0);
					si->initializer = 0;
				}
			}
			sleep_ns(1000000);
			continue;
		}
		if (magic != MMF_MAGIC_NONE && magic != MMF_MAGIC_INIT)
			return refuse(m, "bad magic");
		mmf_lock(m);
		magic = std::atomic_ref<uint32_t>(si->magic).load();
		if (magic == MMF_MAGIC_NONE || (magic == MMF_MAGIC_INIT &&
		    !holder_alive(m, si->initializer)) ||
		    (magic == MMF_MAGIC_INIT &&
		    si->initializer == static_cast<uint32_t>(mmf_getpid()))) {
			try {
				initialise(m);
			} catch (const mmf_damage &d) {
				note_damage(m, "mmf_create", d);
				mmf_unlock(m);
				return false;
			}
		}
		mmf_unlock(m);
	}
}

} // namespace

namespace mmf_impl {

/*
 * Map the header (whole mode: the whole file).  A file without even a
 * header page is new when empty and damaged otherwise.
 */
bool map_header(mmf_t *m, bool *is_new)
{
	uint64_t foa = round_up(MMF_HEADER_BYTES, m->page_size);
	uint64_t size = file_size(m);
	*is_new = size == 0;
	if (*is_new) {
		if (ftruncate(m->fd, static_cast<off_t>(m->default_bytes)) != 0) {
			mmf_errno = errno;
			return false;
		}
		size = m->default_bytes;
	} else if (size < foa) {
		return refuse(m, "file shorter than its header");
	}
	if (size > m->max_bytes) {
		if (m->whole_mapped) {
			m->max_bytes = m->default_bytes = m->grow_by_bytes =
			    round_up(size, m->page_size);
		} else {
			m->max_bytes = round_up(size, m->region_map_bytes);
			m->regions = m->max_bytes / m->region_map_bytes;
		}
	}
	uint64_t bytes = m->whole_mapped ? m->max_bytes : foa;
	void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED,
	    m->fd, 0);
	if (p == MAP_FAILED) {
		mmf_errno = errno;
		return false;
	}
	m->shared_info = static_cast<mmf_shared_info_t *>(p);
	if (m->whole_mapped) {
		m->whole_base = static_cast<uint8_t *>(p);
		m->whole_bytes = bytes;
		m->mapped_bytes = bytes;
	}
	/* Judge a ready header before writing a byte of the file. */
	uint32_t magic = m->shared_info->magic;
	if (!*is_new && magic == MMF_MAGIC_READY && !check_ready(m))
		return false;
	if (magic != MMF_MAGIC_READY && magic != MMF_MAGIC_INIT &&
	    magic != MMF_MAGIC_NONE)
		return refuse(m, "bad magic");
	return alloc_region_table(m);
}

void unmap_all(mmf_t *m)
{
	free_region_table(m);
	if (m->shared_info == nullptr)
		return;
	if (m->whole_mapped)
		munmap(m->whole_base, m->whole_bytes);
	else
		munmap(m->shared_info, round_up(MMF_HEADER_BYTES, m->page_size));
	m->shared_info = nullptr;
	m->whole_base = nullptr;
	m->whole_bytes = 0;
	m->mapped_bytes = 0;
}

} // namespace mmf_impl

static void release(mmf_t *m)
{
	handle_unregister(m);
	unmap_all(m);
	if (m->fd >= 0)
		close(m->fd);
	free(m->name);
	delete m;
}

/* Map, initialise or check; then make sure the store has its first size. */
static bool open_mapped(mmf_t *m)
{
	bool is_new;
	if (!map_header(m, &is_new))
		return false;
	if (is_new)
		m->shared_info->magic = MMF_MAGIC_NONE;
	if (!init_shared_info(m))
		return false;
	MMF_BUMP(m, mmap_calls);
	m->shared_info->last_mapper = static_cast<uint32_t>(mmf_getpid());
	if (m->read_only && m->whole_mapped)
		mprotect(m->whole_base + m->shared_info->first_alloc_offset,
		    m->whole_bytes - m->shared_info->first_alloc_offset,
		    PROT_READ);
	return true;
}

extern "C" mmf_t *mmf_create(const char *name, uint64_t max_bytes,
    uint64_t default_bytes, uint64_t grow_by_bytes, bool whole_mapped,
    uint64_t region_map_bytes, uint32_t max_mapped_regions,
    uint8_t num_alloc_sizes, const uint32_t *alloc_sizes, uint32_t flags,
    bool *created)
{
	if (created != nullptr)
		*created = false;
	MMF_ASSERT(num_alloc_sizes != 0 && num_alloc_sizes != 255);
	uint32_t nsizes = std::min<uint32_t>(num_alloc_sizes,
	    MMF_MAX_USER_CLASSES);
	uint32_t largest = *std::max_element(alloc_sizes, alloc_sizes + nsizes);

	mmf_t *m = new mmf_t{};
	m->fd = -1;
	m->page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
	m->mmap_flags = MMF_MMAP_FLAGS;
	m->create_flags = flags;
	m->name = strdup(name);
	m->whole_mapped = whole_mapped;
	m->read_only = (flags & MMF_CREATE_READ_ONLY) != 0;
	m->raw = (flags & MMF_CREATE_RAW) != 0;
	m->allocs_allowed = (flags & MMF_CREATE_NO_ALLOCS) == 0;
	m->assert_on_bad = true;
	m->want_classes = nsizes;
	memcpy(m->want_sizes, alloc_sizes, nsizes * sizeof(uint32_t));
	m->meminfo_index = 0;

	uint64_t foa = round_up(MMF_HEADER_BYTES, m->page_size);
	uint64_t eff_max = std::max<uint64_t>(max_bytes, foa + largest);
	if (!whole_mapped) {
		MMF_ASSERT(max_bytes >= region_map_bytes);
		MMF_ASSERT(region_map_bytes != 0 &&
		    max_bytes % region_map_bytes == 0);
		MMF_ASSERT(default_bytes >= region_map_bytes);
		MMF_ASSERT(grow_by_bytes >= region_map_bytes);
		MMF_ASSERT(grow_by_bytes % region_map_bytes == 0);
		MMF_ASSERT(region_map_bytes >= 2 * (uint64_t(largest) + 52));
		MMF_ASSERT(region_map_bytes * max_mapped_regions <= max_bytes);
		uint64_t R = round_up(region_map_bytes, m->page_size);
		m->region_map_bytes = R;
		m->max_bytes = round_up(eff_max, R);
		m->default_bytes = round_up(default_bytes, R);
		m->grow_by_bytes = round_up(grow_by_bytes, R);
		m->regions = m->max_bytes / R;
		m->max_mapped_regions = max_mapped_regions;
		m->region_shift = (R & (R - 1)) == 0 ?
		    static_cast<uint64_t>(__builtin_ctzll(R)) : 0;
	} else {
		m->max_bytes = m->default_bytes = m->grow_by_bytes =
		    round_up(eff_max, m->page_size);
		m->region_map_bytes = 0;
		m->max_mapped_regions = 1;
	}

	std::string path = resolve(name);
	bool ok = false;
	m->fd = open(path.c_str(), O_RDWR | O_CLOEXEC, 0600);
	if (m->fd >= 0) {
		handle_register(m);
		flock_bounded(m->fd);
		ok = open_mapped(m);
		flock(m->fd, LOCK_UN);
	} else if (errno == ENOENT) {
		int sem = creation_sem();
		creation_sem_op(sem, -1);
		m->fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
		if (m->fd < 0) {
			mmf_errno = errno;
		} else {
			handle_register(m);
			flock_bounded(m->fd);
			ok = open_mapped(m);
			if (ok) {
				mmf_shared_info_t *si = m->shared_info;
				MMF_BUMP(m, create_opens);
				if (m->default_bytes != 0 && si->created == 0) {
					si->created = 1;
					if (created != nullptr)
						*created = true;
				}
				if (si->current_bytes < m->default_bytes)
					mmf_grow(m);
			}
			flock(m->fd, LOCK_UN);
		}
		creation_sem_op(sem, 1);
	} else {
		mmf_errno = errno;
	}
	if (!ok) {
		release(m);
		return nullptr;
	}
	if (m->shared_info->current_bytes < m->default_bytes &&
	    m->allocs_allowed)
		mmf_grow(m);
	if (created != nullptr)
		meminfo_refresh(m);
	return m;
}

extern "C" void mmf_close(mmf_t *m)
{
	if (m == nullptr)
		return;
	pid_t tid = gettid_cached();
	m->closing_thread.store(tid);
	m->closing.store(true);
	uint32_t self = static_cast<uint32_t>(mmf_getpid());
	while (std::atomic_ref<uint32_t>(m->shared_info->lockerpid).load() ==
	    self && m->locker_cnt.load() > 0 && m->locker_thread.load() != tid)
		sleep_ns(10000000);
	release(m);
}

extern "C" void mmf_delete(mmf_t *m)
{
	if (m == nullptr)
		return;
	std::string path = resolve(m->name);
	mmf_close(m);
	unlink(path.c_str());
}

extern "C" int mmf_unlink(const char *name)
{
	std::string path = resolve(name);
	return unlink(path.c_str());
}

extern "C" bool mmf_recreate(mmf_t *m)
{
	uint32_t sizes[MMF_MAX_USER_CLASSES];
	uint8_t n = mmf_get_allocation_info(m, sizes);
	if (n != 0 && !m->corrupt) {
		m->want_classes = n;
		memcpy(m->want_sizes, sizes, n * sizeof(uint32_t));
	}
	mmf_lock(m);
	std::atomic_ref<uint32_t>(m->shared_info->magic).store(MMF_MAGIC_NONE);
	mmf_unlock(m);
	unmap_all(m);
	m->corrupt = false;
	flock_bounded(m->fd);
	bool ok = open_mapped(m);
	flock(m->fd, LOCK_UN);
	return ok;
}
