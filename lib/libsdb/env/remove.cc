/*
 * The purge of the stores for a fresh start.  The registration area and
 * the System V segments and semaphores stay: live processes hold them.
 */
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "sdb_impl.h"

namespace {

constexpr size_t max_name = 80;

int remove_top_files(void)
{
	std::string dir = sdb_store_path(SDB_TOP_DIR);
	DIR *d = opendir(dir.c_str());
	if (d == nullptr) {
		if (errno == ENOENT)
			return 0;
		sdb_trace(SDB_TRACE_ERR, "Could not open dir %s, err: %s",
		    dir.c_str(), strerror(errno));
		return SDB_ERR_FATAL;
	}
	int failed = 0;
	while (struct dirent *e = readdir(d)) {
		if (strnlen(e->d_name, max_name + 1) > max_name)
			continue;
		std::string p = dir + "/" + e->d_name;
		struct stat st;
		if (lstat(p.c_str(), &st) != 0 || S_ISDIR(st.st_mode))
			continue;
		if (unlink(p.c_str()) != 0 && errno != ENOENT) {
			sdb_trace(SDB_TRACE_ERR, "Failed to remove %s, err: %s",
			    p.c_str(), strerror(errno));
			failed++;
		}
	}
	closedir(d);
	if (failed > 0) {
		sdb_trace(SDB_TRACE_ERR, "%d files not removed from %s", failed,
		    dir.c_str());
		return SDB_ERR_FATAL;
	}
	return 0;
}

int remove_stores(void)
{
	static constexpr const char *stores[] = {
		SDB_HEAD_FILE, SDB_LTS_DATA_FILE, SDB_STS_DATA_FILE,
		SDB_INTF_FILE, SDB_INTF_AD_FILE, SDB_SHM_KEY_FILE,
	};
	int failed = 0;
	for (const char *s : stores) {
		std::string p = sdb_store_path(s);
		if (unlink(p.c_str()) != 0 && errno != ENOENT) {
			sdb_event(LOG_ERR, "LIBSDB_FILE_REMOVE_FAILED",
			    "LIBSDB_FILE_REMOVE_FAILED: Failed to remove %s: %s",
			    p.c_str(), strerror(errno));
			failed++;
		}
	}
	if (failed > 0) {
		sdb_event(LOG_ERR, "LIBSDB_FILE_SEGMENT_NOT_REMOVED",
		    "LIBSDB_FILE_SEGMENT_NOT_REMOVED: %d files/shmem segments not "
		    "removed from %s", failed,
		    sdb_store_path(SDB_SHMEM_DIR).c_str());
		return SDB_ERR_FATAL;
	}
	sdb_event(LOG_INFO, "LIBSDB_FILE_SEGMENT_REMOVED",
	    "LIBSDB_FILE_SEGMENT_REMOVED: SDB files/shmem segments successfully "
	    "removed");
	return 0;
}

} // namespace

extern "C" int sdb_db_remove_files(bool enabled, int what)
{
	if (!enabled)
		return 0;
	int top = 0, stores = 0;
	if (what & 2)
		top = remove_top_files();
	if (what == 1 || what == 3)
		stores = remove_stores();
	return top != 0 ? top : stores;
}
