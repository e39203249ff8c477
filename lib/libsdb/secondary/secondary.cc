/*
 * The secondary tables object sdb_intf.db: attach, create (keel only) and
 * detach.  The object starts with sdb_db_info; the tables themselves and
 * the growth of the object are built on top of this.
 *
 * Invariant: a usable object has initialized and global_size both set;
 * keel sets them last, under the write lock, so a client never sees a
 * half-built header.
 */
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/paths.h"
#include "sdb_impl.h"

namespace {

sdb_db_info *info_ptr;
uint32_t sdb_my_len;
int sdb_mem_fd = -1;

uint32_t initial_len(void)
{
	return sdb_scale_get().sec_initial_bytes;
}

void unmap_and_close(void)
{
	if (info_ptr != nullptr && munmap(info_ptr, sdb_my_len) != 0)
		sdb_trace(SDB_TRACE_ERR, "Failed to unmap memory, %s",
		    strerror(errno));
	if (sdb_mem_fd >= 0 && close(sdb_mem_fd) != 0)
		sdb_trace(SDB_TRACE_ERR, "Close sdb_mem_fd failed");
	info_ptr = nullptr;
	sdb_mem_fd = -1;
}

sdb_db_info *map_len(int fd, uint32_t len)
{
	void *p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	return p == MAP_FAILED ? nullptr : static_cast<sdb_db_info *>(p);
}

/* Map what is there; a short file is not usable (it would fault). */
bool map_existing(const std::string &path)
{
	unmap_and_close();
	int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
	if (fd < 0) {
		sdb_note_open_errno(errno);
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), strerror(errno));
		return false;
	}
	struct stat st;
	if (fstat(fd, &st) != 0 || st.st_size < (off_t)sdb_my_len) {
		close(fd);
		return false;
	}
	sdb_db_info *p = map_len(fd, sdb_my_len);
	if (p == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "Failed mmap for size: %d",
		    (int)sdb_my_len);
		close(fd);
		return false;
	}
	info_ptr = p;
	sdb_mem_fd = fd;
	return true;
}

bool usable(void)
{
	return info_ptr != nullptr && info_ptr->initialized != 0 &&
	    info_ptr->global_size != 0;
}

} // namespace

/*
 * What is wrong with a header that claims to be built, or nullptr.  The
 * words checked are those every table operation trusts: a size beyond the
 * file, or an offset beyond the size, would send it outside the mapping.
 */
const char *sdb_db_info_fault(const sdb_db_info *p, off_t file_size)
{
	uint32_t global = p->global_size;
	if (p->initialized != 1)
		return "bad initialised word";
	if (global < SDB_DB_INFO_SIZE || (off_t)global > file_size)
		return "size word beyond the file";
	if (p->grow_step == 0 || p->grow_step > global)
		return "bad growth step";
	if (p->next_offset < SDB_DB_INFO_SIZE || p->next_offset > global)
		return "next offset beyond the size";
	if (p->lock_type < -1 || p->lock_type > 1)
		return "bad lock type";
	const uint32_t offsets[] = {p->intf_free_list_head,
	    p->session_free_list_head, p->ls_free_list_head,
	    p->ri_free_list_head, p->parent_free_list_head,
	    p->child_free_list_head, p->app_def_free_list_head,
	    p->app_def_free_list_head12, p->uid_free_list_head,
	    p->bucket_free_list_head[0], p->bucket_free_list_head[1],
	    p->bucket_free_list_head[2], p->bucket_free_list_head[3],
	    p->bucket_free_list_head[4], p->bucket_free_list_head[5],
	    p->intf_root, p->uid_root, p->ls_root, p->ri_root,
	    p->parent_root, p->app_def_root};
	static_assert(SDB_STRING_BUCKETS == 6);
	for (uint32_t off : offsets)
		if (off != 0 &&
		    (off < SDB_DB_INFO_SIZE || off >= p->next_offset))
			return "table offset beyond the used part";
	return nullptr;
}

namespace {

bool all_zero(const void *p, size_t len)
{
	const uint8_t *b = static_cast<const uint8_t *>(p);
	for (size_t i = 0; i < len; i++)
		if (b[i] != 0)
			return false;
	return true;
}

/*
 * keel, before it makes the object: one that has bytes but is not whole
 * is damaged.  Its bytes are kept aside; the tables are derived from the
 * long-term store, so the object is then made again and rebuilt.  false
 * when it could not be kept: it is then left alone.
 */
bool keep_if_damaged(const std::string &path)
{
	int fd = sdb_mem_fd;
	const char *fault = nullptr;
	struct stat st;
	if (fd >= 0) {
		if (fstat(fd, &st) == 0)
			fault = sdb_db_info_fault(info_ptr, st.st_size);
		if (fault != nullptr && info_ptr->initialized == 0 &&
		    all_zero(info_ptr, SDB_DB_INFO_SIZE))
			fault = nullptr;	/* never built */
		if (fault == nullptr)
			return true;
		return sdb_store_damaged(fd, path, fault) == 0;
	}
	/* Too short to map: damaged when it has anything in it. */
	fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return true;
	bool ok = true;
	if (fstat(fd, &st) == 0 && st.st_size > 0)
		ok = sdb_store_damaged(fd, path,
		    "shorter than its first mapping") == 0;
	close(fd);
	return ok;
}

int create_object(const std::string &path)
{
	unmap_and_close();
	int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	if (fd < 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open/create file %s, %s",
		    path.c_str(), strerror(errno));
		return SDB_ERR_NOMEM;
	}
	sdb_access_file(fd);
	/*
	 * Made again over an old object: never shrink it, another process
	 * may still map all of it.  The tables start afresh either way.
	 */
	uint32_t grow_step = sdb_my_len;
	struct stat st;
	if (fstat(fd, &st) == 0 && st.st_size > (off_t)sdb_my_len &&
	    st.st_size <= (off_t)UINT32_MAX)
		sdb_my_len = (uint32_t)st.st_size;
	if (ftruncate(fd, sdb_my_len) != 0) {
		sdb_trace(SDB_TRACE_ERR,
		    "Initial truncate failed on file %s for len: %d",
		    path.c_str(), (int)sdb_my_len);
		close(fd);
		unlink(path.c_str());
		return SDB_ERR_NOMEM;
	}
	sdb_db_info *p = map_len(fd, sdb_my_len);
	if (p == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "Failed mmap");
		sdb_event(3, "LIBSDB_FAILED_MAPPING",
		    "LIBSDB_FAILED_MAPPING: failed mapping for shm size "
		    "allocation to: %d, err: %s", (int)sdb_my_len,
		    strerror(errno));
		close(fd);
		unlink(path.c_str());
		return SDB_ERR_NOMEM;
	}
	sdb_trace(SDB_TRACE_INFO, "INIT MEMORY");
	memset(p, 0, sdb_my_len);
	info_ptr = p;
	sdb_mem_fd = fd;
	p->grow_step = grow_step;
	sdb_db_tables_reset();
	p->global_size = sdb_my_len;
	sdb_word(p->initialized).store(1);
	return 0;
}

/* Follow another process's growth of the object. */
int mem_check(void)
{
	uint32_t global = info_ptr->global_size;
	if (global <= sdb_my_len)
		return 0;
	struct stat st;
	if (fstat(sdb_mem_fd, &st) != 0 || st.st_size < (off_t)global) {
		sdb_trace(SDB_TRACE_ERR, "Mem check failed, err:%d",
		    SDB_ERR_NOMEM);
		return SDB_ERR_NOMEM;
	}
	sdb_db_info *p = map_len(sdb_mem_fd, global);
	if (p == nullptr)
		return SDB_ERR_NOMEM;
	munmap(info_ptr, sdb_my_len);
	info_ptr = p;
	sdb_my_len = global;
	return 0;
}

} // namespace

extern "C" sdb_db_info *sdb_db_info_ptr(void)
{
	return info_ptr;
}

void sdb_db_tables_reset(void)
{
	sdb_db_info *p = info_ptr;
	p->intf_free_list_head = p->session_free_list_head = 0;
	p->ls_free_list_head = p->ri_free_list_head = 0;
	p->parent_free_list_head = p->child_free_list_head = 0;
	p->app_def_free_list_head = p->app_def_free_list_head12 = 0;
	p->uid_free_list_head = 0;
	memset(p->bucket_free_list_head, 0, sizeof(p->bucket_free_list_head));
	p->intf_root = p->uid_root = p->ls_root = p->ri_root = 0;
	p->parent_root = p->app_def_root = 0;
	p->app_def_total = 0;
	p->lock_pid = 0;
	p->next_offset = SDB_DB_INFO_SIZE;
	p->lock_type = -1;
}

extern "C" int sdb_db_secondary_init(bool is_keel, bool is_locked)
{
	bool took = false;
	if (!is_locked) {
		/* The semaphore is taken directly: without a mapping the
		 * bookkeeping of sdb_db_lock has nowhere to go yet. */
		int rc = sdb_sem_lock(SDB_SEM_SECONDARY, true);
		if (rc != 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "%s: Failed to lock, is_keel: %d, err: %d", __func__,
			    (int)is_keel, rc);
			sdb_event(3, "LIBSDB_KEEL_LOCK_FAILED",
			    "LIBSDB_KEEL_LOCK_FAILED: %s:%d failed to lock, "
			    "is_keel: %d, err: %d", __func__, __LINE__,
			    (int)is_keel, rc);
			return rc;
		}
		took = true;
	}
	/*
	 * lock_pid is recorded only when it is free.  A dead writer's pid
	 * there is the evidence that the tables need a rebuild: an attach
	 * must not wipe it, so it then gives the bare semaphore back.
	 */
	bool recorded = false;
	auto record = [&](void) {
		if (!took || sdb_word(info_ptr->lock_pid).load() != 0)
			return;
		sdb_word(info_ptr->lock_pid).store((uint32_t)getpid());
		info_ptr->lock_type = SDB_LOCK_WRITE;
		recorded = true;
	};
	auto release = [&](void) {
		if (!took)
			return;
		int rc = recorded ? sdb_db_unlock(SDB_LOCK_WRITE) :
		    sdb_sem_unlock(SDB_SEM_SECONDARY, true);
		if (rc != 0)
			sdb_trace(SDB_TRACE_ERR,
			    "%s:%u Failed to unlock, is_keel: %d", __func__,
			    __LINE__, (int)is_keel);
	};
	if (info_ptr != nullptr) {
		record();
	} else {
		sdb_my_len = initial_len();
		std::string path = sdb_store_path(SDB_INTF_FILE);
		tolvar_mkdirs(sdb_store_path(SDB_SHMEM_DIR).c_str(), 0755);
		map_existing(path);
		if (is_keel && !keep_if_damaged(path)) {
			unmap_and_close();
			release();
			return SDB_ERR_NOMEM;
		}
		struct stat st;
		const char *fault = nullptr;
		if (usable() && fstat(sdb_mem_fd, &st) == 0)
			fault = sdb_db_info_fault(info_ptr, st.st_size);
		if (fault != nullptr && !is_keel)
			sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
			    path.c_str(), fault);
		if (!usable() || fault != nullptr) {
			int rc = is_keel ? create_object(path) : SDB_ERR_NOMEM;
			if (rc != 0) {
				unmap_and_close();
				release();
				return SDB_ERR_NOMEM;
			}
		}
		record();
		int rc = mem_check();
		if (rc != 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "SDB DB INIT failed, increase failed, err:%d", rc);
			release();
			return rc;
		}
	}
	release();
	return 0;
}

extern "C" void sdb_db_secondary_detach(void)
{
	if (info_ptr == nullptr)
		return;
	if (info_ptr->lock_pid == (uint32_t)getpid() && info_ptr->lock_type != -1)
		sdb_db_unlock(info_ptr->lock_type);
	unmap_and_close();
	sdb_my_len = 0;
}

/*
 * keel on the master, after the open: note whether a writer died inside
 * the tables and mark the recovery done.  The rebuild from the long-term
 * store is the recovery module's; here there is nothing to rebuild from.
 */
extern "C" int sdb_db_secondary_recover(int force, int is_locked)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	if (t == nullptr || info_ptr == nullptr)
		return SDB_ERR_NOT_STARTED;
	uint32_t me = (uint32_t)getpid();
	if (!is_locked) {
		int rc = sdb_sem_lock(SDB_SEM_SECONDARY, true);
		if (rc != 0)
			return rc;
	}
	uint32_t stale = sdb_word(info_ptr->lock_pid).exchange(me);
	info_ptr->lock_type = SDB_LOCK_WRITE;
	if (stale == me)
		stale = 0;
	if (stale != 0)
		sdb_trace(SDB_TRACE_INFO, "*** LOCK was still open by pid %u, recover",
		    stale);
	if (force || stale != 0) {
		sdb_word(t->recovery_status).store(SDB_RECOVERY_REBUILDING);
		sdb_db_tables_reset();
	}
	sdb_word(t->recovery_status).store(SDB_RECOVERY_DONE);
	if (!is_locked)
		return sdb_db_unlock(SDB_LOCK_WRITE);
	return 0;
}
