/*
 * Stand-in for the keel client until its sources join this library: the
 * open order of keel_register() without the socket.  A process whose name
 * begins with "keel" owns the database; every other process opens the
 * stores and "connects", which succeeds once keel has made them.
 */
#include <cstring>

#include "platform/chassis.h"
#include "platform/process.h"
#include "sdb/keel.h"
#include "sdb_impl.h"

namespace {

keel_handle *global_handle;

void log_handle(keel_handle *h, int priority, const char *text)
{
	(void)h;
	sdb_trace(priority, "%s", text);
}

/* Stand-in for the socket registration. */
int keel_connect(keel_handle *h)
{
	h->connected = 1;
	return 0;
}

int open_database(keel_handle *h)
{
	bool is_keel = h->is_keel != 0;
	int rc = sdb_open_internal(is_keel);
	if (rc != 0) {
		if (is_keel)
			return rc;
		sdb_close_internal(false);
		return SDB_ERR_NOT_STARTED;
	}
	if (!is_keel) {
		rc = keel_connect(h);
		if (rc != 0) {
			sdb_close_internal(false);
			return rc;
		}
	}
	rc = sdb_db_init(h, is_keel);
	if (rc == 0)
		rc = sdb_db_secondary_init(is_keel, false);
	if (rc != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open SDB %s",
		    sdb_strerror(rc));
		sdb_close_internal(is_keel);
		return rc;
	}
	return 0;
}

} // namespace

extern "C" keel_handle *keel_init_handle(void)
{
	if (global_handle == nullptr) {
		global_handle = new keel_handle{};
		global_handle->fd = -1;
		global_handle->timeout_ms = 1000;
	}
	return global_handle;
}

extern "C" int keel_register(keel_handle *h)
{
	if (h == nullptr)
		return SDB_ERR_KEEL_FATAL;
	if (!sdb_platform_supported()) {
		log_handle(h, SDB_TRACE_ERR, "KEEL not supported on this platform");
		return SDB_ERR_UNSUPPORTED;
	}
	h->is_keel = strncmp(platform_progname(), "keel", 4) == 0;
	if (h->user_reg)
		return 0;
	bool master = nmchassis_is_generic_protocol_master() != 0;
	sdb_set_mastership(master);
	sdb_trace(SDB_TRACE_INFO, "KEEL db: %s", master ? "Master" : "Standby");
	int rc = open_database(h);
	if (rc != 0)
		return rc;
	if (h->is_keel) {
		sdb_trace(SDB_TRACE_INFO, "Successfully opened SDB");
		if (sdb_is_master) {
			rc = sdb_db_secondary_recover(0, 0);
			if (rc != 0) {
				sdb_trace(SDB_TRACE_ERR, "Failed to recover SDB");
				sdb_close_internal(true);
				return rc;
			}
			sdb_trace(SDB_TRACE_INFO,
			    "Successfully recovered secondary table");
		}
	} else {
		sdb_trace(SDB_TRACE_INFO, "Successfully registered with KEEL");
	}
	if (h->db_ready_cb != nullptr)
		h->db_ready_cb(h->db_ready_ctx, nullptr);
	h->user_reg = 1;
	return 0;
}

extern "C" int keel_unregister(keel_handle **hp)
{
	if (hp == nullptr || *hp == nullptr)
		return SDB_ERR_KEEL_FATAL;
	keel_handle *h = *hp;
	int rc = sdb_close_internal(h->is_keel != 0);
	if (h == global_handle)
		global_handle = nullptr;
	delete h;
	*hp = nullptr;
	return rc;
}

extern "C" int keel_poll(keel_handle *)
{
	return 0;
}

extern "C" int keel_reregister(keel_handle *h)
{
	if (h == nullptr)
		return SDB_ERR_KEEL_FATAL;
	sdb_close_internal(h->is_keel != 0);
	h->user_reg = 0;
	return keel_register(h);
}

extern "C" void keel_close_connection(keel_handle *h, int notify,
    int start_timer)
{
	(void)start_timer;
	if (h == nullptr)
		return;
	h->connected = 0;
	if (notify)
		sdb_db_env_down(h);
}
