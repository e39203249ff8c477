/*
 * Configuration read.  The daemon has no file of its own: all it needs is
 * whether graceful switchover is configured under chassis redundancy (or
 * implied by a cluster), and it learns that from the configuration
 * database at start and on every SIGHUP.
 */
#include "tolvard.h"

#include <platform/chassis.h>
#include <platform/dax.h>

#include <cstring>

#define TOLVARD_SCHEMA		"okernel"
#define TOLVARD_SCHEMA_NUMBER	462432747u

/*
 * True when graceful switchover is configured.  errmsg is left empty when
 * the answer is simply "no", and holds the reason when the configuration
 * could not be read.
 */
int tolvard_process_graceful_restart_cfg(char *errmsg, size_t errlen)
{
	static const char *const path[] = {
		"chassis", "redundancy", "graceful-switchover", nullptr
	};
	ddl_handle_t *obj = nullptr;

	errmsg[0] = '\0';
	if (ddl_access_object_find_by_name(nullptr, path, &obj, errmsg, errlen)) {
		tolvard_trace(TRACE_GENERAL, "Graceful Switchover configured");
		ddl_access_release(obj);
		return 1;
	}
	if (errmsg[0] != '\0')
		tolvard_trace(TRACE_GENERAL,
		    "Error determining Graceful Switchover configuration, msg: %s",
		    errmsg);
	else
		tolvard_trace(TRACE_GENERAL, "Graceful Switchover not configured");
	return 0;
}

/*
 * Returns 1 when the configuration database could be read, 0 when it could
 * not be opened.  Only gres_configured changes; acting on it is
 * tolvard_gres_sync()'s business.
 */
int tolvard_config_read(int check)
{
	char errmsg[256];
	int rc;

	rc = dax_open_db(nullptr, "tolvard", TOLVARD_SCHEMA,
	    TOLVARD_SCHEMA_NUMBER, check);
	if (rc != 0) {
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error opening configuration database (check: %u): %s",
		    __func__, static_cast<unsigned>(check), strerror(rc));
		return 0;
	}
	if (check)
		tolvard_trace(TRACE_GENERAL, "=== Configuration CHECK ===");

	int found = tolvard_process_graceful_restart_cfg(errmsg, sizeof(errmsg));
	tolvard_state.config_errors = tolvard_id_margin_config(check);
	nmchassis_setup_capabilities();
	if (nmchassis_cluster_is_enabled() || found)
		tolvard_state.gres_configured = 1;
	else if (errmsg[0] != '\0')
		/* Unreadable is not "off": keep what the last good read said,
		 * so that a bad edit does not tear down replication. */
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error determining Graceful Switchover configuration, msg: %s",
		    __func__, errmsg);
	else
		tolvard_state.gres_configured = 0;

	rc = dax_close_db();
	if (rc != 0)
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error closing configuration database (check: %u): %s",
		    __func__, static_cast<unsigned>(check), strerror(rc));
	tolvard_trace(TRACE_GENERAL, "Config read ended in status %d", 1);
	if (check)
		tolvard_trace(TRACE_GENERAL, "=== Configuration CHECK DONE ===");
	return 1;
}
