/*
 * Opening and closing the session database through the keel client.
 *
 * Invariant: at most one open attempt is pending, as the one-shot
 * db_retry_timer; every path into tolvard_open() stops it first.  Failures
 * that keel reports as "try later" (-19), and a keel that cannot be
 * reached (-26), retry for ever at the back-off delay; any other failure
 * counts, and the eleventh counted failure ends
 * the process, since a daemon that cannot open the database is of no use
 * and the system will start it again.
 */
#include "tolvard.h"
#include "events.h"
#include "keel_client.h"

#include <platform/timescale.h>

#include <algorithm>

namespace {

/* Text of the keel client goes to the trace file in its own category. */
void keel_trace(void *ctx, int priority, const char *fmt, va_list ap)
{
	(void)ctx;
	(void)priority;
	tolvard_tracev(TRACE_KEEL, fmt, ap);
}

/*
 * Make the client handle and give it everything before the first
 * registration: the setters refuse once it is registered.
 */
keel_handle *make_keel_handle(void)
{
	keel_handle *h = keel_init_handle();

	if (h == nullptr)
		return nullptr;
	keel_set_event_context(h, &tolvard_state.event_context);
	if (tolvard_state.role == role_master) {
		/*
		 * The done callbacks do nothing, as no callback would; they
		 * are given because a setter may refuse a missing one.
		 */
		keel_set_issu_context(h, &tolvard_state);
		keel_set_issu_prepare_cbs(h, tolvard_issu_prepare,
		    tolvard_issu_done);
		keel_set_issu_switchover_cbs(h, tolvard_issu_switchover_prepare,
		    tolvard_issu_done);
		keel_set_recovery_pending(h);
	}
	keel_set_log_cb(h, &tolvard_state, keel_trace);
	keel_set_db_ready_cb(h, &tolvard_state, tolvard_db_state_change);
	return h;
}

} // namespace

void tolvard_open(void)
{
	if (tolvard_state.role == role_none) {
		tolvard_trace(TRACE_DB,
		    "%s called, but our role is neither master nor standby",
		    __func__);
		return;
	}
	otimer_stop(tolvard_state.db_retry_timer);

	if (tolvard_state.keel_handle == nullptr)
		tolvard_state.keel_handle = make_keel_handle();

	int rc = tolvard_state.keel_handle != nullptr
	    ? keel_register(tolvard_state.keel_handle) : SDB_ERR_NOMEM;
	if (rc == 0) {
		tolvard_state.db_retry_delay = TOLVARD_DB_RETRY_FIRST;
		tolvard_state.db_attempts = 0;
		tolvard_state.db_up = 1;
		return;
	}

	tolvard_trace(TRACE_DB, "Failed to init %s, attempt %d, err:%d, %s",
	    tolvard_state.db_name, tolvard_state.db_attempts, rc,
	    sdb_strerror(rc));
	/*
	 * db_up stays as it was: it falls only when the database is closed.
	 * Whether replication may start is db_env's to say, which only the
	 * database-ready callback sets.  keel not there to take the
	 * connection (restarting, or its backlog full for the whole wait) is
	 * "try later" as well.
	 */
	if (rc != SDB_ERR_NOT_STARTED && rc != SDB_ERR_KEEL_CONNECT)
		tolvard_state.db_attempts++;
	if (rc == SDB_ERR_UNSUPPORTED) {
		tolvard_trace(TRACE_DB, "DB %s, will not retry", sdb_strerror(rc));
		tolvard_state.platform_ok = 0;
		return;
	}
	if (tolvard_state.db_attempts > TOLVARD_DB_MAX_ATTEMPTS) {
		tolvard_trace(TRACE_DB, "Failed to open DB %d times, giving up",
		    tolvard_state.db_attempts);
		tolvard_event(TOLVARD_DB_OPEN_FAILED, tolvard_state.db_attempts);
		tolvard_shutdown();
		TOLVARD_EXIT(1);
	}
	tolvard_open_later();
	tolvard_state.db_retry_delay = std::min(tolvard_state.db_retry_delay * 2,
	    TOLVARD_DB_RETRY_MAX);
}

/*
 * Arm the retry of the open.  Only a running timer makes this a no-op: the
 * timer object itself is kept from one retry to the next, so testing for
 * its existence would arm the first retry and never another.
 */
void tolvard_open_later(void)
{
	if (tolvard_state.db_retry_timer != nullptr &&
	    otimer_is_running(tolvard_state.db_retry_timer))
		return;
	if (tolvard_state.timer_context == nullptr) {
		/* Statistics mode runs no event loop, so a retry could never
		 * fire: report and let the caller go on closed. */
		tolvard_trace(TRACE_DB, "No event loop, DB open not retried");
		return;
	}
	if (tolvard_state.db_retry_timer == nullptr) {
		tolvard_state.db_retry_timer = otimer_create(
		    tolvard_state.timer_context, nullptr, tolvard_open_retry,
		    nullptr);
		if (tolvard_state.db_retry_timer == nullptr) {
			tolvard_trace(TRACE_DB, "Failed to create timer for DB open");
			tolvard_event(TOLVARD_TIMER_CREATE_FAILED);
			TOLVARD_EXIT(1);
		}
	}
	tolvard_trace(TRACE_DB, "Retry DB open in %d seconds",
	    tolvard_state.db_retry_delay);
	struct timespec delay = tolvar_scaled_secs(tolvard_state.db_retry_delay);
	otimer_oneshot(tolvard_state.db_retry_timer, delay.tv_sec, delay.tv_nsec, 0);
}

void tolvard_open_retry(otimer_t *timer, void *arg)
{
	(void)arg;
	otimer_stop(timer);
	tolvard_open();
}

void tolvard_reopen(void)
{
	otimer_stop(tolvard_state.db_retry_timer);
	tolvard_close();
	tolvard_open();
}

void tolvard_close(void)
{
	/*
	 * A retry left pending would open the database again behind the
	 * back of whoever closed it (a role change waiting to restart).
	 */
	otimer_stop(tolvard_state.db_retry_timer);
	if (tolvard_state.keel_handle != nullptr) {
		int rc = keel_unregister(&tolvard_state.keel_handle);
		if (rc != 0) {
			tolvard_trace(TRACE_DB, "Failed to close %s, %s",
			    tolvard_state.db_name, sdb_strerror(rc));
			tolvard_event(TOLVARD_KEEL_UNREGISTER_FAILED,
			    tolvard_state.db_name, sdb_strerror(rc));
		} else {
			tolvard_trace(TRACE_DB, "Successfully closed %s",
			    tolvard_state.db_name);
		}
		/* The client frees the handle whatever it answers; never
		 * register again through a handle it may have freed. */
		tolvard_state.keel_handle = nullptr;
	}
	tolvard_state.db_env = nullptr;
	tolvard_state.db_up = 0;
	tolvard_rep_ready_set(0);
}

void tolvard_shutdown(void)
{
	tolvard_close();
	tolvard_status_final();
	tolvard_pid_remove();
	tolvard_trace(TRACE_GENERAL, "Shutdown complete");
}

void tolvard_db_state_change(void *context, void *env)
{
	(void)context;
	tolvard_state.db_env = env;
	if (env == nullptr) {
		tolvard_trace(TRACE_DB, "Lost Database Environment");
		tolvard_rep_ready_set(0);
		tolvard_status_write();
		return;
	}
	tolvard_trace(TRACE_DB, "Database Environment changed");
	tolvard_gres_sync();
	tolvard_rep_ready_set(1);
	tolvard_state.db_up = 1;
	/* Before anything reads or sends the id: a new master's margin. */
	tolvard_id_margin_apply();
	if (!tolvard_state.rep_started) {
		tolvard_trace(TRACE_DB, "Starting Replication");
		tolvard_state.rep_started = 1;
	}
	if (tolvard_state.mirror_up && tolvard_state.gres_enabled) {
		int rc = tolvard_rep_start();
		if (rc != 0) {
			tolvard_trace(TRACE_DB, "Failed to start replication %d", rc);
			tolvard_event(TOLVARD_REP_START_FAILED, rc);
		} else {
			tolvard_trace(TRACE_DB, "Started replication");
		}
	}
	tolvard_status_write();
}
