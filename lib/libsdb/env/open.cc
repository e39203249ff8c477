/*
 * Opening and closing the stores of a process.  keel creates what is
 * missing; every other process only attaches, and fails when keel has not
 * made the stores yet.
 */
#include <cerrno>
#include <cstring>

#include "platform/paths.h"
#include "sdb/sdb_id.h"
#include "sdb_impl.h"

extern "C" int sdb_open_internal(bool is_keel)
{
	sdb_open_errno_clear();
	if (is_keel)
		sdb_access_refresh();
	for (const char *dir : {SDB_SHMEM_DIR, SDB_TMP_DIR}) {
		std::string p = sdb_store_path(dir);
		if (tolvar_mkdirs(p.c_str(), 0755) != 0)
			sdb_trace(SDB_TRACE_ERR, "Could not create %s: %s",
			    p.c_str(), strerror(errno));
	}
	int rc = sdb_segment_attach(is_keel);
	if (rc != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to init shared memory %d", rc);
		return rc;
	}
	rc = sdb_limit_segments_attach(is_keel);
	if (rc != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to init rsmon shared memory %d",
		    rc);
		return rc;
	}
	rc = sdb_sem_init(is_keel);
	if (rc == 0)
		rc = sdb_id_init(is_keel);
	if (rc != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to init id generator %d", rc);
		return rc;
	}
	if (is_keel)
		sdb_word(sdb_seg_tail_ptr()->recovery_status)
		    .store(SDB_RECOVERY_OPENED);
	sdb_dyn_var_table_init();
	return 0;
}

extern "C" int sdb_close_internal(bool is_keel)
{
	client_signal_block block(is_keel);
	sdb_process_thread_safe_lock();
	sdb_db_secondary_detach();
	int rc = sdb_db_close();
	sdb_sem_forget();
	sdb_id_forget();
	sdb_unit_pools_forget();
	sdb_segment_detach();
	sdb_limit_segments_detach();
	sdb_process_thread_safe_unlock();
	return rc;
}
