/*
 * sdb.head: the hash table of the long-term store with its counters and
 * bucket locks.  keel creates it; clients only attach.  The data file,
 * the short-term store and the mailbox segment are opened in the same
 * step, in this order.
 *
 * Invariant: a header whose magic is set is complete.  The magic is
 * written last (but for master_time, which the next keel fills in), so a
 * keel that died while creating the object leaves one that the next keel
 * initialises again and that clients refuse.  A header with any other
 * bytes and no magic is damaged: keel keeps it aside before it starts
 * afresh.
 */
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mmf/mmf.h"
#include "platform/paths.h"
#include "sdb/sdb_lts.h"
#include "sdb_impl.h"

namespace {

uint8_t *head_base;
size_t head_len;
int head_fd = -1;
uint32_t bucket_count;
mmf_t *lts_data;

bool all_zero(const uint8_t *p, size_t len)
{
	for (size_t i = 0; i < len; i++)
		if (p[i] != 0)
			return false;
	return true;
}

size_t head_size(uint32_t buckets)
{
	return (size_t)buckets * SDB_LTS_BUCKET_SIZE + SDB_LTS_HEADER_SIZE;
}

/* Open for a client: present and complete, or nothing. */
int open_client(const std::string &path, size_t len)
{
	int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
	if (fd < 0) {
		sdb_note_open_errno(errno);
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), strerror(errno));
		return -1;
	}
	struct stat st;
	if (fstat(fd, &st) != 0 || (size_t)st.st_size != len) {
		/* Mapping past the end would fault: refuse a short or
		 * foreign object instead. */
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), "size does not match the scale class");
		close(fd);
		return -1;
	}
	return fd;
}

/* Open for keel: create when missing.  *made tells whether it is new. */
int open_keel(const std::string &path, size_t len)
{
	int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
	if (fd < 0 && errno != ENOENT) {
		sdb_trace(SDB_TRACE_ERR, "KEEL fail to init shared SDB: %s",
		    strerror(errno));
		return -1;
	}
	if (fd < 0) {
		fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
		if (fd < 0) {
			sdb_trace(SDB_TRACE_ERR, "Failed to create file %s, %s",
			    path.c_str(), strerror(errno));
			return -1;
		}
	}
	sdb_access_file(fd);
	struct stat st;
	if (fstat(fd, &st) != 0) {
		close(fd);
		return -1;
	}
	if ((size_t)st.st_size == len)
		return fd;
	if (st.st_size != 0) {
		/*
		 * A header of another bucket count, or a damaged one: its
		 * sessions hash to other buckets, if anywhere.  Its bytes
		 * are kept aside and the header made again at the size
		 * this class needs; one that cannot be kept is refused.
		 */
		char what[80];
		snprintf(what, sizeof(what), "%lld bytes, not %zu",
		    (long long)st.st_size, len);
		if (sdb_store_damaged(fd, path, what) != 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "Truncate failed, len %d, errno %s", (int)len,
			    "existing object has another size");
			close(fd);
			return -1;
		}
		if (ftruncate(fd, 0) != 0)
			sdb_trace(SDB_TRACE_ERR, "Truncate failed, len %d, "
			    "errno %s", 0, strerror(errno));
	}
	if (ftruncate(fd, (off_t)len) != 0) {
		sdb_trace(SDB_TRACE_ERR, "Truncate failed, len %d, errno %s",
		    (int)len, strerror(errno));
		if (close(fd) != 0)
			sdb_trace(SDB_TRACE_ERR, "Close head failed");
		if (unlink(path.c_str()) != 0)
			sdb_trace(SDB_TRACE_ERR, "Unlink failed");
		return -1;
	}
	return fd;
}

int open_head(bool is_keel)
{
	std::string path = sdb_store_path(SDB_HEAD_FILE);
	size_t len = head_size(bucket_count);
	int fd = is_keel ? open_keel(path, len) : open_client(path, len);
	if (fd < 0)
		return SDB_ERR_NOMEM;
	void *p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	if (p == MAP_FAILED) {
		sdb_trace(SDB_TRACE_ERR, "Failed mmap");
		close(fd);
		if (is_keel)
			unlink(path.c_str());
		return SDB_ERR_NOMEM;
	}
	auto *h = static_cast<sdb_lts_header *>(p);
	uint32_t magic = sdb_word(h->magic).load();
	if (magic != SDB_LTS_MAGIC) {
		if (!is_keel) {
			sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
			    path.c_str(), "not initialised");
			munmap(p, len);
			close(fd);
			return SDB_ERR_NOMEM;
		}
		/*
		 * All zero is a header that was never finished (the magic
		 * goes last); anything else held counters, locks and
		 * chains, which are kept aside before they are wiped.
		 */
		if (!all_zero(static_cast<const uint8_t *>(p), len) &&
		    sdb_store_damaged(fd, path, "bad magic") != 0) {
			munmap(p, len);
			close(fd);
			return SDB_ERR_NOMEM;
		}
		sdb_trace(SDB_TRACE_INFO, "INIT MEMORY");
		memset(p, 0, len);
		sdb_word(h->magic).store(SDB_LTS_MAGIC);
		if (sdb_is_master)
			h->master_time = (uint32_t)time(nullptr);
	} else {
		sdb_trace(SDB_TRACE_INFO, "PRESENT");
		if (is_keel) {
			sdb_count(h->keel_attaches);
			if (sdb_is_master && h->master_time == 0)
				h->master_time = (uint32_t)time(nullptr);
		} else {
			sdb_count(h->client_attaches);
		}
	}
	head_base = static_cast<uint8_t *>(p);
	head_len = len;
	head_fd = fd;
	sdb_trace(SDB_TRACE_INFO, "Have memory %d, start %lx", (int)len,
	    (unsigned long)(uintptr_t)p);
	return 0;
}

/*
 * keel starts with no client holding anything it could know of: clear the
 * semaphore owner word and take back every bucket lock.  A bucket whose
 * owner still lives is waited for like any other.
 */
void release_buckets_at_start(void)
{
	auto *h = sdb_lts_header_ptr();
	sdb_word(h->sem_owner_pid).store(0);
	for (uint32_t b = 0; b < bucket_count; b++) {
		uint32_t owner = sdb_word(sdb_lts_bucket_ptr(b)->owner_pid).load();
		if (owner == 0)
			continue;
		sdb_trace(SDB_TRACE_INFO, "Found lock %d, releasing for pid %d",
		    (int)b, (int)owner);
		sdb_count(h->bucket_released_keel_start);
		if (sdb_sentry_lock_acquire(b) == 0)
			sdb_sentry_lock_release(b);
	}
}

/*
 * The data heap.  keel makes it; a client that finds no file gets none
 * rather than a fresh empty heap beside the header's rows.
 */
int open_data(bool is_keel)
{
	std::string path = sdb_store_path(SDB_LTS_DATA_FILE);
	struct stat st;
	if (!is_keel && stat(path.c_str(), &st) != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), strerror(errno));
		return SDB_ERR_NOMEM;
	}
	const sdb_scale &sc = sdb_scale_get();
	static constexpr uint32_t kb[] = {512, 1024, 2048, 4096, 8192, 10240,
	    12288, 14336, 16384, 18432, 20480};
	uint32_t sizes[std::size(kb)];
	for (size_t i = 0; i < std::size(kb); i++)
		sizes[i] = kb[i] - SDB_LTS_BLOCK_OVERHEAD;
	bool created = false;
	lts_data = mmf_create(SDB_LTS_DATA_FILE, sc.lts_max_bytes,
	    (uint64_t)bucket_count * SDB_LTS_MAX_RECORD + sc.lts_grow_bytes,
	    sc.lts_grow_bytes, false, sc.lts_region_bytes, sc.lts_max_regions,
	    (uint8_t)std::size(sizes), sizes, 0, &created);
	if (lts_data == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), strerror(mmf_errno));
		return SDB_ERR_NOMEM;
	}
	return 0;
}

} // namespace

extern "C" int sdb_lts_store_open(int is_keel)
{
	if (head_base != nullptr)
		return 0;
	bucket_count = sdb_scale_get().bucket_count;
	if (open_head(is_keel) != 0)
		return SDB_ERR_NOMEM;
	if (open_data(is_keel) != 0) {
		sdb_lts_store_close();
		return SDB_ERR_NOMEM;
	}
	return 0;
}

extern "C" void sdb_lts_store_close(void)
{
	if (head_base == nullptr)
		return;
	sdb_lts_scan_index_drop();
	if (lts_data != nullptr)
		mmf_close(lts_data);
	lts_data = nullptr;
	if (munmap(head_base, head_len) != 0)
		sdb_trace(SDB_TRACE_ERR, "Failed to unmap data memory, %s",
		    strerror(errno));
	if (close(head_fd) != 0)
		sdb_trace(SDB_TRACE_ERR, "Close head failed");
	head_base = nullptr;
	head_len = 0;
	head_fd = -1;
}

int sdb_lts_init(bool is_keel)
{
	if (head_base == nullptr) {
		if (sdb_lts_store_open(is_keel) != 0)
			return SDB_ERR_NOMEM;
		sdb_lts_clear_stale_own();
	}
	const sdb_scale &sc = sdb_scale_get();
	if (sdb_sts_init(sc.sts_bytes, 5 * 4096) != 0 ||
	    sdb_mailbox_attach(is_keel) != 0) {
		sdb_lts_close();
		return SDB_ERR_NOMEM;
	}
	if (is_keel)
		release_buckets_at_start();
	return 0;
}

void sdb_lts_close(void)
{
	if (head_base == nullptr)
		return;
	sdb_trace(SDB_TRACE_INFO, "Close shared DB");
	sdb_lts_store_close();
	sdb_mailbox_detach();
	sdb_sts_close();
}

mmf_t *sdb_lts_data(void)
{
	return lts_data;
}

extern "C" sdb_lts_header *sdb_lts_header_ptr(void)
{
	return reinterpret_cast<sdb_lts_header *>(head_base);
}

/*
 * A bucket owner holds while it lives and maps sdb.head: a live pid that
 * does not map it is a dead owner's pid taken by another process, which
 * must be neither waited for nor killed.
 */
bool sdb_lts_owner_alive(uint32_t pid)
{
	if (!sdb_pid_alive(pid))
		return false;
	return head_fd < 0 || mmf_pid_maps_file((pid_t)pid, head_fd);
}

extern "C" sdb_lts_bucket *sdb_lts_bucket_ptr(uint32_t bucket)
{
	if (head_base == nullptr || bucket >= bucket_count)
		return nullptr;
	return reinterpret_cast<sdb_lts_bucket *>(head_base +
	    SDB_LTS_HEADER_SIZE + (size_t)bucket * SDB_LTS_BUCKET_SIZE);
}

extern "C" uint32_t sdb_lts_bucket_count(void)
{
	return head_base != nullptr ? bucket_count : 0;
}

extern "C" uint64_t sdb_lts_counter64(const uint32_t pair[2])
{
	uint32_t lo = __atomic_load_n(&pair[0], __ATOMIC_RELAXED);
	uint32_t hi = __atomic_load_n(&pair[1], __ATOMIC_RELAXED);
	return (uint64_t)hi << 32 | lo;
}
