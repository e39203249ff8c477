/*
 * The environment record of a process and its state machine.  Only state
 * 7 (up) lets work through; a standby keel or tolvard holds the stores
 * open in state 1 or 2, so that every session operation there gives -19.
 */
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/process.h"
#include "platform/signals.h"
#include "sdb_impl.h"

bool sdb_is_master;
bool sdb_keel_recovering;
uint8_t sdb_init_flag;

namespace {

struct sdb_env_record {
	void *client_dbp, *service_dbp, *auth_request_dbp, *auth_response_dbp;
	void *dynamic_config_dbp;
	void *env;
	void *app_pri_dbp;
	void *app_defined_dbp[SDB_APP_TABLES];
	uint32_t state;
	struct keel_handle *keel;
};

sdb_env_record env_rec;
bool env_created;
int app_table_key_len[SDB_APP_TABLES];

/* The statistics databases are opened in this block, and it is handed to
 * the ready callback; its content is theirs. */
constexpr size_t env_block_size = 12;

const char *role_name(void)
{
	return sdb_is_master ? "Master" : "Standby";
}

void zero_keeping_handle(void)
{
	struct keel_handle *h = env_rec.keel;
	free(env_rec.env);
	env_rec = sdb_env_record{};
	env_rec.keel = h;
}

/* The result of a statistics open: -7 on a standby is "not yet there". */
int stats_failed(int rc, bool mobile)
{
	const char *what = mobile ? "mobile stats" : "stats";
	if (rc == SDB_ERR_NOT_FOUND && !sdb_is_master) {
		sdb_trace(SDB_TRACE_ERR, "%s databases is not available %s", what,
		    sdb_strerror(rc));
		sdb_event(3, "LIBSDB_STATS_DATABASE_ERROR",
		    "LIBSDB_STATS_DATABASE_ERROR: %s:%d %s databases is not "
		    "available, err:%d:%s", __func__, __LINE__, what, rc,
		    sdb_strerror(rc));
		env_rec.state = SDB_STATE_NO_STATS;
		return SDB_ERR_UNAVAILABLE;
	}
	sdb_trace(SDB_TRACE_ERR, "Failed to init %s db %s", what,
	    sdb_strerror(rc));
	sdb_event(3, "LIBSDB_STATS_DATABASE_ERROR",
	    "LIBSDB_STATS_DATABASE_ERROR: %s:%d failed to init %s db, "
	    "err:%d:%s", __func__, __LINE__, what, rc, sdb_strerror(rc));
	return sdb_map_error(rc);
}

bool opens_statistics(const char *prog)
{
	if (sdb_is_master)
		return strcmp(prog, "brindle") != 0;
	for (const char *p : {"nimbusd", "quillon-clientd", "quillon-serverd",
	    "quillond"})
		if (strcmp(prog, p) == 0)
			return true;
	return false;
}

int db_init(struct keel_handle *h, bool is_keel)
{
	if (sdb_lts_init(is_keel) != 0)
		return SDB_ERR_NOMEM;
	if (env_created && env_rec.state == SDB_STATE_UP) {
		sdb_trace(SDB_TRACE_INFO, "SDB already open");
		env_rec.keel = h;
		return 0;
	}
	env_created = true;
	env_rec = sdb_env_record{};
	sdb_keel_recovering = false;
	env_rec.state = SDB_STATE_INIT;
	env_rec.keel = h;
	sdb_trace(SDB_TRACE_INFO, "SDB open as: %s", role_name());
	sdb_unit_pools_init();

	const char *prog = platform_progname();
	if (!sdb_program_in_daemon_list(prog)) {
		env_rec.state = SDB_STATE_UP;
		return 0;
	}
	env_rec.env = calloc(1, env_block_size);
	if (env_rec.env == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "Error creating DB environment: %s",
		    strerror(ENOMEM));
		return sdb_map_error(ENOMEM);
	}
	env_rec.state = SDB_STATE_ENV_CREATED;
	if (sdb_replication_supported())
		env_rec.state = SDB_STATE_REPLICATION;
	else
		sdb_trace(SDB_TRACE_INFO, "Replication not supported on platform");

	if (!sdb_is_master && (strcmp(prog, "keel") == 0 ||
	    strcmp(prog, "tolvard") == 0))
		return 0;
	if (opens_statistics(prog)) {
		int rc = libstats_init_db(env_rec.env);
		if (rc != 0)
			return stats_failed(rc, false);
		rc = libstats_init_mobile_db(env_rec.env);
		if (rc != 0)
			return stats_failed(rc, true);
	}
	env_rec.state = SDB_STATE_UP;
	return 0;
}

} // namespace

extern "C" int sdb_db_init(struct keel_handle *h, bool is_keel)
{
	client_signal_block block(is_keel);
	return db_init(h, is_keel);
}

struct keel_handle *sdb_env_handle(void)
{
	return env_created ? env_rec.keel : nullptr;
}

extern "C" int sdb_db_env_state(void)
{
	return env_created ? (int)env_rec.state : -1;
}

extern "C" const char *sdb_db_env_state_name(int state)
{
	switch (state) {
	case SDB_STATE_INIT: return "init";
	case SDB_STATE_ENV_CREATED: return "environment created";
	case SDB_STATE_REPLICATION: return "replication capable";
	case SDB_STATE_NO_STATS: return "statistics databases missing";
	case SDB_STATE_CLOSING: return "closing";
	case SDB_STATE_CLOSED: return "closed";
	case SDB_STATE_UP: return "up";
	case SDB_STATE_PANIC: return "panic";
	case SDB_STATE_DOWN: return "down";
	case SDB_STATE_SECONDARY_RECOVERY: return "secondary recovery";
	default: return "none";
	}
}

static int env_check(bool reinit)
{
	if (!env_created || env_rec.keel == nullptr) {
		sdb_trace(SDB_TRACE_ERR,
		    "keel_register should be called before using sdb");
		return SDB_ERR_NOT_STARTED;
	}
	if (env_rec.keel->chassis_issu ==
	    KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE)
		return SDB_ERR_ISSU;
	if (reinit)
		keel_poll(env_rec.keel);
	if (env_rec.state == SDB_STATE_SECONDARY_RECOVERY)
		return SDB_ERR_RECOVERING;
	if (env_rec.state == SDB_STATE_UP)
		return 0;
	sdb_trace(SDB_TRACE_ERR, "db env state is invalid %d, re-init",
	    (int)env_rec.state);
	if (!reinit)
		return SDB_ERR_NOT_STARTED;
	struct keel_handle *h = env_rec.keel;
	keel_close_connection(h, 1, 0);
	int rc = keel_reregister(h);
	if (rc != 0)
		return rc;
	if (env_rec.state != SDB_STATE_UP) {
		sdb_trace(SDB_TRACE_ERR,
		    "keel_reregister succeeded but db state Invalid");
		return SDB_ERR_NOT_STARTED;
	}
	return 0;
}

extern "C" int sdb_db_env_check(void)
{
	return env_check(false);
}

extern "C" int sdb_db_env_check_reinit(void)
{
	return env_check(true);
}

extern "C" void sdb_db_secondary_needs_recovery(void)
{
	if (env_created && env_rec.state == SDB_STATE_UP) {
		env_rec.state = SDB_STATE_SECONDARY_RECOVERY;
		sdb_trace(SDB_TRACE_ERR, "SDB SECONDARY TABLE NEEDS RECOVERY");
	}
}

/* The environment's part of the close; the long-term store goes last. */
int sdb_db_close(void)
{
	if (!env_created) {
		sdb_lts_close();
		return 0;
	}
	int rc = 0;
	switch (env_rec.state) {
	case SDB_STATE_PANIC:
		sdb_trace(SDB_TRACE_ERR, "Attempting to close SDB on PANIC");
		break;
	case SDB_STATE_DOWN:
		sdb_trace(SDB_TRACE_ERR, "Attempting to close SDB while DOWN");
		break;
	case SDB_STATE_SECONDARY_RECOVERY:
		sdb_trace(SDB_TRACE_ERR,
		    "Attempting to close SDB while in secondary recover");
		rc = SDB_ERR_FATAL;
		break;
	default:
		break;
	}
	if (sdb_keel_recovering)
		rc = SDB_ERR_FATAL;
	env_rec.state = SDB_STATE_CLOSING;
	if (env_rec.env != nullptr) {
		if (libstats_close_mobile_db() == 0) {
			sdb_trace(SDB_TRACE_INFO, "closed mobile stats database");
		} else {
			sdb_trace(SDB_TRACE_ERR,
			    "Failed to close mobile stats database %s",
			    sdb_strerror(SDB_ERR_FATAL));
			rc = SDB_ERR_FATAL;
		}
		if (libstats_close_db() == 0) {
			sdb_trace(SDB_TRACE_INFO, "closed stats database");
		} else {
			sdb_trace(SDB_TRACE_ERR, "Failed to close stats database %s",
			    sdb_strerror(SDB_ERR_FATAL));
			rc = SDB_ERR_FATAL;
		}
	}
	zero_keeping_handle();
	env_rec.state = SDB_STATE_CLOSED;
	sdb_lts_close();
	return rc;
}

extern "C" void sdb_db_env_down(struct keel_handle *h)
{
	static const uint8_t zero_env[env_block_size] = {};
	if (!env_created)
		return;
	env_rec.state = SDB_STATE_DOWN;
	sdb_trace(SDB_TRACE_ERR, "SDB STATE DOWN");
	sdb_close_internal(h != nullptr && h->is_keel);
	/* The close has freed the block, so the application gets the zeroed
	 * one and never a dangling pointer. */
	void *env = env_rec.env != nullptr ? env_rec.env : (void *)zero_env;
	if (h != nullptr && h->db_ready_cb != nullptr)
		h->db_ready_cb(h->db_ready_ctx, env);
}

extern "C" void sdb_set_mastership(bool master)
{
	/* The mapped heap library learns the role from the same setter once
	 * it links here. */
	sdb_is_master = master;
}

extern "C" int sdb_quiesce(void)
{
	int rc = sdb_db_env_check();
	if (rc != 0)
		return rc;
	sdb_sts_quiesce();
	sdb_lts_quiesce();
	sdb_db_quiesce();
	return 0;
}

extern "C" int sdb_app_table_size_set(int table_id, int value)
{
	if (table_id < 0 || table_id >= SDB_APP_TABLES) {
		sdb_trace(SDB_TRACE_ERR,
		    "Application private databases table id %d, is not valid "
		    "for %s", table_id, platform_progname());
		return SDB_ERR_PARAM;
	}
	app_table_key_len[table_id] = value;
	return 0;
}
