/*
 * Role and switchover control.
 *
 * The daemon follows two things while it runs: the routing engine's role
 * and the graceful switchover statement of the configuration.  Both reach
 * it as SIGHUP.  A role change has one of three outcomes:
 *
 *	standby or none to master	done in place: reopen as master
 *	master to standby		close, exit 0 after 30 seconds
 *	master to none			close, wait 900 seconds for the reboot
 *
 * A standby never turns into a master and back within one process: the
 * exit 0 hands the process to the supervisor, which starts it again in the
 * new role with a clean state.  Only the restart timer survives a role
 * change, and a second change back to master while it is pending ends the
 * process at once.
 *
 * Readiness: rep_ready says whether this side counts as in step.  Both
 * sides raise it when the database comes and in tolvard_rep_start(); both
 * drop it when the link, the database or the process goes.  The master
 * also takes it from every INFO message of the standby, and the standby
 * sends INFO at every change of its own flag.
 */
#include "tolvard.h"
#include "events.h"
#include "keel_client.h"

#include <platform/timescale.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

static void issu_go_on_if_active(void);

namespace {

/*
 * Sleep for the whole span; no signal cuts it short, so that SIGHUP or
 * SIGINFO cannot shorten a wait for a reboot.  SIGTERM is the exception:
 * the process manager asks the daemon to go, and it has nothing left to
 * do, so making the manager escalate to SIGKILL after its own timeout
 * would only delay the stop.  The database is closed before every wait,
 * so leaving early loses nothing.
 *
 * The wait runs inside an event handler, where the loop keeps its signals
 * blocked: SIGTERM is taken here synchronously with sigtimedwait(), and
 * the others stay pending, as they would during any long handler.
 */
void sleep_through_signals(double secs)
{
	sigset_t term, old;
	struct timespec now, end, left = tolvar_scaled_secs(secs);

	sigemptyset(&term);
	sigaddset(&term, SIGTERM);
	pthread_sigmask(SIG_BLOCK, &term, &old);
	clock_gettime(CLOCK_MONOTONIC, &end);
	end.tv_sec += left.tv_sec;
	end.tv_nsec += left.tv_nsec;
	if (end.tv_nsec >= 1000000000L) {
		end.tv_sec++;
		end.tv_nsec -= 1000000000L;
	}
	for (;;) {
		if (tolvard_state.sig_term || sigtimedwait(&term, nullptr, &left) == SIGTERM) {
			tolvard_trace(TRACE_GENERAL,
			    "received SIGTERM signal: graceful shutdown commencing....");
			tolvard_shutdown();
			exit(0);
		}
		if (errno == EAGAIN)
			break;
		/* Cut short by another signal: sleep what is left. */
		clock_gettime(CLOCK_MONOTONIC, &now);
		left.tv_sec = end.tv_sec - now.tv_sec;
		left.tv_nsec = end.tv_nsec - now.tv_nsec;
		if (left.tv_nsec < 0) {
			left.tv_sec--;
			left.tv_nsec += 1000000000L;
		}
		if (left.tv_sec < 0)
			break;
	}
	pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

const char *lower_role_name(uint32_t role)
{
	switch (role) {
	case role_master:
		return "master";
	case role_standby:
		return "standby";
	default:
		return "none";
	}
}

/*
 * Master to none: the engine is about to be rebooted.  The wait blocks
 * the event loop, so the local server goes first: a client that waited on
 * a barrier would otherwise hang for the whole wait, and one that
 * connected during it would never be read.  A closed connection tells the
 * client honestly that no answer is coming.
 */
[[noreturn]] void wait_for_reboot(void)
{
	tolvard_event(TOLVARD_GRES_SWITCH_TO_NONE);
	tolvard_close();
	tolvard_server_close();
	sleep_through_signals(TOLVARD_REBOOT_WAIT);
	tolvard_event(TOLVARD_GRES_REBOOT_FAIL);
	TOLVARD_EXIT_AS("tolvard_mirror_mastership_change", 1);
}

/*
 * None to standby.  A daemon that started without a role opened no
 * database and set up no link.  Left so, the standby's id word would
 * never follow the master, and a later switchover would hand out the
 * master's ids a second time.  Do what a start as standby does; on a
 * daemon that already has both, each step returns at once.
 */
void become_standby(void)
{
	if (tolvard_state.keel_handle == nullptr)
		tolvard_open();
	if (!tolvard_state.mirror_inited)
		tolvard_mirror_init();
}

void start_replication_traced(void)
{
	int rc = tolvard_rep_start();

	if (rc != 0)
		tolvard_trace(TRACE_DB, "Failed to start replication %d", rc);
}

} // namespace

const char *tolvard_role_name(uint32_t role)
{
	switch (role) {
	case role_master:
		return "Master";
	case role_standby:
		return "Standby";
	default:
		return "None";
	}
}

void tolvard_gres_sync(void)
{
	if (tolvard_state.gres_configured == tolvard_state.gres_enabled)
		return;
	/*
	 * A standby that goes off says "not ready" first: with the flag
	 * cleared the send would be refused, and the master would count on
	 * it until the link went.
	 */
	if (!tolvard_state.gres_configured && tolvard_state.role == role_standby)
		tolvard_rep_ready_set(0);
	tolvard_state.gres_enabled = tolvard_state.gres_configured;
	tolvard_trace(TRACE_MIRROR, "Graceful Switchover config changed");

	if (tolvard_state.gres_enabled) {
		tolvard_trace(TRACE_MIRROR, "Graceful Switchover enabled");
		if (!tolvard_state.mirror_inited)
			tolvard_mirror_init();
		else if (tolvard_state.mirror_up)
			start_replication_traced();
		return;
	}

	tolvard_trace(TRACE_MIRROR, "Graceful Switchover disabled");
	switch (tolvard_state.role) {
	case role_master:
		/* The database and the link stay; only readiness goes. */
		tolvard_rep_stop();
		break;
	case role_standby:
		/*
		 * A standby without graceful switchover has no reason to
		 * hold the database: start again clean and let the new
		 * process decide from the configuration it reads.
		 */
		tolvard_close();
		tolvard_restart_later();
		break;
	default:
		tolvard_trace(TRACE_MIRROR, "Graceful Switchover change, but "
		    "we are neither master nor standby");
		break;
	}
}

int tolvard_mirror_mastership_change(void)
{
	uint32_t from = tolvard_state.role;
	uint32_t to = tolvard_role_query();

	if (to == from)
		return 0;
	tolvard_trace(TRACE_MIRROR, tolvard_state.gres_enabled
	    ? "Mastership change, Graceful Switchover configured"
	    : "Mastership change, Graceful Switchover not configured");

	if (from == role_master) {
		tolvard_trace(TRACE_MIRROR, "Switching from Master to %s",
		    tolvard_role_name(to));
		tolvard_state.role = to;
		if (to == role_none)
			wait_for_reboot();
		tolvard_close();
		tolvard_restart_later();
	} else if (to == role_master) {
		tolvard_trace(TRACE_MIRROR, "Switching from %s to Master",
		    tolvard_role_name(from));
		tolvard_state.role = role_master;
		tolvard_switch_to_master();
	} else {
		tolvard_trace(TRACE_MIRROR, "Switching from %s to %s",
		    tolvard_role_name(from), tolvard_role_name(to));
		tolvard_state.role = to;
		if (from == role_none)
			become_standby();
	}
	return 1;
}

void tolvard_switch_to_master(void)
{
	if (otimer_is_running(tolvard_state.restart_timer)) {
		/*
		 * Lost and regained mastership within the restart delay.
		 * The database is already closed and the link may have been
		 * told that this side is a standby: start afresh as master.
		 */
		tolvard_trace(TRACE_MIRROR,
		    "GRES switched back to master, before standby closed down");
		tolvard_event(TOLVARD_GRES_BACK_TO_MASTER);
		tolvard_restart(tolvard_state.restart_timer, nullptr);
	}
	/*
	 * The ids the old master handed out since we last heard from it are
	 * unknown: the database-ready callback of the reopen raises the id
	 * word by the margin before replication or a client sees it.
	 */
	tolvard_state.id_margin_due = 1;
	if (tolvard_state.mirror_inited)
		mirror_re_switchover_event();
	tolvard_reopen();
	/*
	 * A daemon that started without a role never set up the link, and
	 * the database-ready callback sets it up only on a change of the
	 * configuration: without this the new master would serve with no
	 * standby and no one would notice.  Set-up refuses by itself when
	 * graceful switchover is off.
	 */
	if (!tolvard_state.mirror_inited)
		tolvard_mirror_init();
}

void tolvard_restart_later(void)
{
	otimer_delete(tolvard_state.restart_timer);
	tolvard_state.restart_timer = tolvard_state.timer_context == nullptr
	    ? nullptr
	    : otimer_create(tolvard_state.timer_context, nullptr,
		tolvard_restart, nullptr);
	if (tolvard_state.restart_timer == nullptr) {
		tolvard_trace(TRACE_GENERAL,
		    "Failed to create timer for restart, sleep");
		tolvard_event(TOLVARD_RESTART_CREATE_FAILED,
		    static_cast<unsigned>(TOLVARD_RESTART_DELAY));
		tolvard_server_close();
		sleep_through_signals(TOLVARD_RESTART_DELAY);
		tolvard_restart(nullptr, nullptr);
	}
	tolvard_trace(TRACE_GENERAL, "Restarting in %d seconds",
	    TOLVARD_RESTART_DELAY);
	struct timespec delay = tolvar_scaled_secs(TOLVARD_RESTART_DELAY);
	otimer_oneshot(tolvard_state.restart_timer, delay.tv_sec, delay.tv_nsec, 0);
	tolvard_state.restart_at = static_cast<int64_t>(time(nullptr)) +
	    delay.tv_sec + (delay.tv_nsec > 0);
	tolvard_status_write();
}

void tolvard_restart(otimer_t *timer, void *arg)
{
	(void)timer;
	(void)arg;
	otimer_delete(tolvard_state.restart_timer);
	tolvard_state.restart_timer = nullptr;
	tolvard_trace(TRACE_GENERAL, "tolvard restarting as %s",
	    lower_role_name(tolvard_state.role));
	tolvard_shutdown();
	exit(0);
}

void tolvard_mirror_event(int state)
{
	switch (state) {
	case MIRROR_STATE_UP:
		tolvard_trace(TRACE_MIRROR, "Mirroring connection up");
		tolvard_event(TOLVARD_MIRROR_CONN_READY);
		tolvard_mirror_state_change(1);
		break;
	case MIRROR_STATE_DOWN:
		tolvard_trace(TRACE_MIRROR, "Lost mirroring connection");
		tolvard_event(TOLVARD_MIRROR_CONN_LOST);
		tolvard_state.conn_lost++;
		tolvard_mirror_state_change(0);
		break;
	case MIRROR_STATE_NO_STANDBY:
		tolvard_trace(TRACE_MIRROR, "Standby card not present");
		tolvard_event(TOLVARD_MIRROR_NO_STANDBY);
		tolvard_state.mirror_up = 0;
		break;
	default:
		break;
	}
}

void tolvard_mirror_state_change(int up)
{
	if (tolvard_state.mirror_up != (up ? 1 : 0))
		tolvard_state.link_since = static_cast<int64_t>(time(nullptr));
	tolvard_state.mirror_up = up ? 1 : 0;
	if (!up) {
		tolvard_poll_stop();
		tolvard_rep_stop();
		tolvard_status_write();
		return;
	}
	if (!tolvard_state.gres_enabled)
		return;
	if (tolvard_state.role == role_none) {
		tolvard_trace(TRACE_MIRROR, "Mirror state change to UP, but role "
		    "is neither master nor standby");
		return;
	}
	tolvard_poll_start();
	int rc = tolvard_rep_start();
	if (rc != 0) {
		tolvard_trace(TRACE_DB, "Failed to start replication %d", rc);
		return;
	}
	/*
	 * The transaction trigger of the library only counts; it has no
	 * other effect that the daemon depends on.
	 */
	if (tolvard_state.role == role_master && tolvard_state.debug)
		tolvard_trace(TRACE_DB, "***** Triggered a transaction ******");
	tolvard_status_write();
}

int tolvard_rep_start(void)
{
	if (tolvard_state.role == role_none) {
		tolvard_trace(TRACE_DB,
		    "Cannot start replication, mastership not determined");
		return -1;
	}
	if (!tolvard_state.gres_enabled) {
		tolvard_trace(TRACE_DB,
		    "Cannot start replication, graceful restart disabled");
		tolvard_event(TOLVARD_GRES_DISABLED);
		return -1;
	}
	if (!tolvard_state.mirror_up) {
		tolvard_trace(TRACE_DB, "Cannot start replication, mirroring down");
		tolvard_event(TOLVARD_MIRROR_CONN_DOWN);
		return -1;
	}
	/*
	 * A process waiting to restart has closed its database.  Saying
	 * "ready" now would let the master, and an ISSU step behind it, count
	 * on a standby that can store nothing; the new process will start
	 * replication itself.
	 */
	if (otimer_is_running(tolvard_state.restart_timer)) {
		tolvard_trace(TRACE_DB, "Cannot start replication, restart pending");
		return -1;
	}
	/*
	 * The same holds while the open is still being retried: the
	 * database-ready callback starts replication when it comes.
	 */
	if (tolvard_state.db_env == nullptr) {
		tolvard_trace(TRACE_DB, "Cannot start replication, database down");
		return -1;
	}
	if (tolvard_state.role == role_master) {
		/*
		 * session_id_sent may be older than the database: it was
		 * taken at set-up, and a standby that became master in place
		 * has generated since.  Sending it as it stands would pull
		 * the standby's counter back until the next poll, and a
		 * switchover in that gap would hand out ids twice.  Take the
		 * current value first; the check sends it when it moved, and
		 * then it goes out once.
		 */
		if (!tolvard_session_id_check())
			tolvard_session_id_send();
	}
	/*
	 * The standby tells a new link its state even when the flag did not
	 * change: the master of this link has heard nothing from it yet.
	 */
	if (tolvard_state.role == role_standby && tolvard_state.rep_ready)
		tolvard_info_send(TOLVARD_INFO_READY);
	else if (tolvard_state.rep_ready)
		issu_go_on_if_active();
	else
		tolvard_rep_ready_set(1);
	if (tolvard_state.role == role_master &&
	    tolvard_state.keel_handle != nullptr)
		keel_recovery_complete(tolvard_state.keel_handle);
	return 0;
}

int tolvard_rep_stop(void)
{
	if (tolvard_state.db_env == nullptr) {
		tolvard_trace(TRACE_DB,
		    "Cannot stop replication, database already down");
		return -1;
	}
	tolvard_rep_ready_set(0);
	return 0;
}

int tolvard_rep_active(void)
{
	return tolvard_state.mirror_up && tolvard_state.rep_ready;
}

void tolvard_rep_ready_set(int ready)
{
	uint8_t value = ready ? 1 : 0;

	if (tolvard_state.rep_ready == value)
		return;
	tolvard_state.rep_ready = value;
	tolvard_trace(TRACE_DB, "Replication %s ready", value ? "IS" : "IS NOT");
	tolvard_status_write();
	if (value)
		issu_go_on_if_active();
	if (tolvard_state.role == role_standby)
		tolvard_info_send(value ? TOLVARD_INFO_READY : 0);
}

/*
 * A waiting ISSU step goes on the moment replication is ready, and only
 * then: with the flag alone, every database-ready callback would release
 * it, also with no link, and the switchover behind it would leave a
 * standby that holds nothing.  So ask for what the ISSU answers ask for,
 * the flag together with the link, and check again when the link comes
 * up with the flag already set.  Only a step the daemon still holds is
 * answered, so keel never hears "ready" twice for one step.
 */
static void issu_go_on_if_active(void)
{
	keel_handle *h = tolvard_state.keel_handle;

	if (h == nullptr || !tolvard_rep_active())
		return;
	uint32_t step = keel_chassis_issu_state(h);
	if (step != KEEL_CHASSIS_DAEMON_ISSU_PREPARE &&
	    step != KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE)
		return;
	uint32_t ours = keel_daemon_issu_state(h);
	if (ours == KEEL_ISSU_PREPARE || ours == KEEL_ISSU_SWITCHOVER_PREPARE)
		keel_issu_ready(h);
}

void tolvard_poll_start(void)
{
	if (tolvard_state.poll_running || tolvard_state.poll_timer == nullptr)
		return;
	otimer_periodic(tolvard_state.poll_timer, 0, TOLVARD_POLL_MS * 1000000L, 0);
	tolvard_state.poll_running = 1;
}

void tolvard_poll_stop(void)
{
	otimer_stop(tolvard_state.poll_timer);
	tolvard_state.poll_running = 0;
}

/*
 * ISSU answers, registered on the master only: ready while the link is up
 * and the standby said it is ready; otherwise ask for the long wait, which
 * tolvard_rep_ready_set(1) ends.
 */
void tolvard_issu_prepare(void *ctx, int *abort, int *ready,
    struct keel_issu_info *info)
{
	*abort = 0;
	tolvard_issu_switchover_prepare(ctx, ready, info);
}

void tolvard_issu_switchover_prepare(void *ctx, int *ready,
    struct keel_issu_info *info)
{
	(void)ctx;
	if (tolvard_rep_active()) {
		*ready = 1;
		info->wait = 0;
		return;
	}
	*ready = 0;
	info->wait = TOLVARD_ISSU_WAIT;
	snprintf(info->text, sizeof(info->text), "Waiting for repository sync");
}

void tolvard_issu_done(void *ctx)
{
	(void)ctx;
}
