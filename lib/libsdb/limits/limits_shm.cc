/*
 * The four System V segments of the subscriber limits, and the table lock.
 *
 * keel makes the key files and, when a segment is missing, creates and
 * zeroes it; every other process only attaches and fails when a segment is
 * missing.  A segment outlives its users, so a restarted daemon finds the
 * counts.  On any failure all four are detached.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "limits_impl.h"
#include "platform/timescale.h"
#include "sdb/sdb_fpc.h"

namespace {

struct segment {
	const char *key_file;
	int project;
	size_t bytes;
	const char *name;	/* for the failure text */
	const char *tag;	/* event tag prefix */
	void *base;
};

segment segs[] = {
	{SDB_RSMON_KEY_FILE, SDB_RSMON_PROJECT, SDB_RSMON_SEG_SIZE, "rsmon",
	    "LIBSDB_RSMON", nullptr},
	{SDB_AE_KEY_FILE, SDB_AE_PROJECT, SDB_AE_TABLE_ENTRIES * 4, "ae table",
	    "LIBSDB_AE_TABLE", nullptr},
	{SDB_PS_KEY_FILE, SDB_PS_PROJECT, SDB_PS_SEG_SIZE, "ps table",
	    "LIBSDB_PS_TABLE", nullptr},
	{SDB_RLT_KEY_FILE, SDB_RLT_PROJECT, SDB_RLT_TABLE_ENTRIES * 4,
	    "rlt table", "LIBSDB_RLT_TABLE", nullptr},
};

int attach_one(segment &s, bool is_keel)
{
	std::string key_file = sdb_store_path(s.key_file);
	if (is_keel) {
		int fd = open(key_file.c_str(),
		    O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
		if (fd < 0)
			return SDB_ERR_FATAL;
		close(fd);
	}
	key_t key = ftok(key_file.c_str(), s.project);
	if (key == (key_t)-1) {
		sdb_event(3, (std::string(s.tag) + "_FAILED_FTOK").c_str(),
		    "%s_FAILED_FTOK: %s:%d ftok of %s failed: %s", s.tag,
		    __func__, __LINE__, key_file.c_str(), strerror(errno));
		return SDB_ERR_FATAL;
	}
	bool created = false;
	int id = shmget(key, s.bytes, 0666);
	if (id < 0 && is_keel && errno == ENOENT) {
		id = shmget(key, s.bytes, IPC_CREAT | IPC_EXCL | 0666);
		created = id >= 0;
	}
	struct shmid_ds ds;
	if (id < 0 || shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz != s.bytes) {
		sdb_event(3, (std::string(s.tag) + "_SHARED_MEMORY_FAILURE").c_str(),
		    "%s_SHARED_MEMORY_FAILURE: %s:%d shmget failed: %s", s.tag,
		    __func__, __LINE__, id < 0 ? strerror(errno) : "wrong size");
		return SDB_ERR_FATAL;
	}
	void *p = shmat(id, nullptr, 0);
	if (p == (void *)-1) {
		sdb_event(3, (std::string(s.tag) + "_SHARED_MEMORY_FAILURE").c_str(),
		    "%s_SHARED_MEMORY_FAILURE: %s:%d shmat failed: %s", s.tag,
		    __func__, __LINE__, strerror(errno));
		return SDB_ERR_FATAL;
	}
	s.base = p;
	if (created)
		memset(p, 0, s.bytes);
	return 0;
}

/* Headers of a fresh segment (or one whose creator died before it wrote
 * them) carry their table's size. */
void init_headers(void)
{
	auto *h = static_cast<sdb_sub_limit_hdr *>(segs[0].base);
	int32_t zero = 0;
	sdb_limits::word(h->max_records).compare_exchange_strong(zero,
	    SDB_LIMIT_MAX_RECORDS);
	auto *ps = static_cast<sdb_ps_table_hdr *>(segs[2].base);
	zero = 0;
	sdb_limits::word(ps->max_records).compare_exchange_strong(zero,
	    SDB_PS_MAX_RECORDS);
}

} // namespace

int sdb_limit_segments_attach(bool is_keel)
{
	if (segs[0].base != nullptr)
		return 0;
	for (segment &s : segs) {
		int rc = attach_one(s, is_keel);
		if (rc != 0) {
			if (&s != &segs[0] && &s != &segs[2])
				sdb_trace(SDB_TRACE_ERR,
				    "Failed to init %s shared memory %d", s.name,
				    rc);
			sdb_limit_segments_detach();
			return rc;
		}
	}
	if (is_keel) {
		init_headers();
		sdb_fpc_table_init_if_new();
	}
	return 0;
}

void sdb_limit_segments_detach(void)
{
	for (segment &s : segs) {
		if (s.base != nullptr)
			shmdt(s.base);
		s.base = nullptr;
	}
}

extern "C" sdb_sub_limit_hdr *sdb_sub_limit_hdr_ptr(void)
{
	return static_cast<sdb_sub_limit_hdr *>(segs[0].base);
}

extern "C" sdb_sub_limit_record *sdb_sub_limit_records(void)
{
	auto *b = static_cast<uint8_t *>(segs[0].base);
	return b == nullptr ? nullptr :
	    reinterpret_cast<sdb_sub_limit_record *>(b + sizeof(sdb_sub_limit_hdr));
}

extern "C" uint32_t *sdb_ae_table_ptr(void)
{
	return static_cast<uint32_t *>(segs[1].base);
}

extern "C" uint32_t *sdb_rlt_table_ptr(void)
{
	return static_cast<uint32_t *>(segs[3].base);
}

extern "C" sdb_ps_table_hdr *sdb_ps_table_hdr_ptr(void)
{
	return static_cast<sdb_ps_table_hdr *>(segs[2].base);
}

extern "C" sdb_ps_record *sdb_ps_records(void)
{
	auto *b = static_cast<uint8_t *>(segs[2].base);
	return b == nullptr ? nullptr :
	    reinterpret_cast<sdb_ps_record *>(b + sizeof(sdb_ps_table_hdr));
}

namespace sdb_limits {

std::span<sdb_sub_limit_record> records(void)
{
	sdb_sub_limit_record *r = sdb_sub_limit_records();
	if (r == nullptr)
		return {};
	return {r, SDB_LIMIT_MAX_RECORDS};
}

sdb_sub_limit_hdr *header(void)
{
	return sdb_sub_limit_hdr_ptr();
}

} // namespace sdb_limits

/*
 * The table lock.  An flock(2) on the record segment's key file, taken on
 * a descriptor of its own at each call: it excludes other processes and
 * other threads alike, and the kernel gives it back when its holder dies,
 * so no waiter has to judge a dead holder.  A holder that keeps it for a
 * minute is taken as hung and the waiter gives up with -4.
 */
namespace {
thread_local int lock_fd = -1;
thread_local uint32_t lock_depth;
}

/* A thread that holds the lock may take it again (a mapping update under
 * the lock makes records, which takes it too). */
extern "C" int sdb_limit_table_lock(void)
{
	if (lock_fd >= 0) {
		lock_depth++;
		return 0;
	}
	std::string path = sdb_store_path(SDB_RSMON_KEY_FILE);
	int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0) {
		sdb_trace(SDB_TRACE_ERR, "limit table lock: %s: %s",
		    path.c_str(), strerror(errno));
		return SDB_ERR_DEADLOCK;
	}
	uint64_t limit_us = (uint64_t)tolvar_scaled_ms(60) * 1000;
	uint64_t waited = 0;
	for (uint32_t attempts = 1;; attempts++) {
		if (flock(fd, LOCK_EX | LOCK_NB) == 0)
			break;
		if ((errno != EWOULDBLOCK && errno != EINTR) ||
		    waited >= limit_us) {
			sdb_trace(SDB_TRACE_ERR,
			    "limit table lock not had after %llu us, holder %d",
			    (unsigned long long)waited,
			    sdb_limit_table_lock_holder());
			close(fd);
			return SDB_ERR_DEADLOCK;
		}
		waited += sdb_lock_backoff(attempts);
	}
	lock_fd = fd;
	lock_depth = 1;
	return 0;
}

extern "C" void sdb_limit_table_unlock(void)
{
	if (lock_fd < 0 || --lock_depth != 0)
		return;
	flock(lock_fd, LOCK_UN);
	close(lock_fd);
	lock_fd = -1;
}

/* /proc/locks names an flock holder by the inode of its file. */
extern "C" int sdb_limit_table_lock_holder(void)
{
	std::string path = sdb_store_path(SDB_RSMON_KEY_FILE);
	struct stat st;
	if (stat(path.c_str(), &st) != 0)
		return -1;
	FILE *f = fopen("/proc/locks", "re");
	if (f == nullptr)
		return -1;
	char line[256];
	int holder = 0;
	while (fgets(line, sizeof(line), f) != nullptr) {
		char kind[16], mode[16], rw[16];
		int pid;
		unsigned maj, min;
		unsigned long long ino;
		if (strstr(line, "->") != nullptr)
			continue;	/* a waiter, not the holder */
		if (sscanf(line, "%*d: %15s %15s %15s %d %x:%x:%llu", kind, mode,
		    rw, &pid, &maj, &min, &ino) != 7)
			continue;
		if (strcmp(kind, "FLOCK") == 0 && ino == (unsigned long long)st.st_ino &&
		    makedev(maj, min) == st.st_dev) {
			holder = pid;
			break;
		}
	}
	fclose(f);
	return holder;
}
