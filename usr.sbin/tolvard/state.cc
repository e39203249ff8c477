/*
 * The global state record and the start-up steps that fill it: trace file,
 * resource limits, role, pid lock and timer context.
 */
#include "tolvard.h"
#include "events.h"

#include <platform/chassis.h>
#include <platform/paths.h>
#include <platform/process.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

struct tolvard_state tolvard_state = {
	.event_context = {nullptr},
	.timer_context = nullptr,
	.role = role_none,
	.gres_configured = 0,
	.gres_enabled = 0,
	.mirror_up = 0,
	.db_up = 1,
	.rep_ready = 0,
	.platform_ok = 1,
	.debug = 0,
	.entries_created = 0,
	.max_hits = 0,
	.recv_msgs = 0,
	.recv_bytes = 0,
	.conn_lost = 0,
	.free_list = TAILQ_HEAD_INITIALIZER(tolvard_state.free_list),
	.conn_list = TAILQ_HEAD_INITIALIZER(tolvard_state.conn_list),
	.listen_fd = -1,
	.trace = nullptr,
	.db_retry_delay = TOLVARD_DB_RETRY_FIRST,
	.db_name = "SDB",
	.db_env = nullptr,
	.keel_handle = nullptr,
	.mirror_max_entries = TOLVARD_MIRROR_ENTRIES,
	.db_retry_timer = nullptr,
	.db_attempts = 0,
	.rep_started = 0,
	.poll_running = 0,
	.poll_timer = nullptr,
	.mirror_inited = 0,
	.restart_timer = nullptr,
	.session_id_sent = 0,
	.sig_hup = 0,
	.sig_info = 0,
	.sig_term = 0,
	.sig_usr1 = 0,
	.sig_usr2 = 0,
	.id_rate = TOLVARD_ID_RATE,
	.id_margin = TOLVARD_ID_MARGIN,
	.id_margin_unknown = TOLVARD_ID_MARGIN_UNKNOWN,
};

void tolvard_tracev(int category, const char *fmt, va_list ap)
{
	daemon_tracev(tolvard_state.trace, category, 0, fmt, ap);
}

void tolvard_trace(int category, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	tolvard_tracev(category, fmt, ap);
	va_end(ap);
}

void tolvard_trace_init(void)
{
	/*
	 * A trace file that cannot be opened is no reason not to run: every
	 * trace call then writes nothing, and events still reach the log.
	 */
	tolvard_state.trace = daemon_trace_initialize(TOLVARD_TRACE_FILE);
	tolvard_trace(TRACE_GENERAL, "Trace init");
}

void tolvard_rlimit_init(void)
{
	struct rlimit rl;

	rl.rlim_cur = rl.rlim_max = 0x7FFFFFFFFFFFFFFFULL;
	if (setrlimit(RLIMIT_DATA, &rl) != 0) {
		getrlimit(RLIMIT_DATA, &rl);
		tolvard_trace(TRACE_GENERAL,
		    "Failed to set data segment limit, current limit %d",
		    static_cast<int>(rl.rlim_cur));
		return;
	}
	tolvard_trace(TRACE_GENERAL, "Successful setting RLIMITs");
}

uint32_t tolvard_role_query(void)
{
	if (mcontrol_re_is_master_reboot_pending())
		return role_none;
	return nmchassis_is_generic_protocol_master() ? role_master : role_standby;
}

void tolvard_state_init(void)
{
	uint32_t role = tolvard_role_query();
	auto *first = reinterpret_cast<char *>(&tolvard_state.timer_context);
	auto *end = reinterpret_cast<char *>(&tolvard_state.conn_lost) +
	    sizeof(tolvard_state.conn_lost);

	memset(first, 0, end - first);
	tolvard_state.role = role;
	switch (role) {
	case role_master:
		tolvard_trace(TRACE_GENERAL, "Init: We are Master");
		break;
	case role_standby:
		tolvard_trace(TRACE_GENERAL, "Init: We are StandBy");
		break;
	default:
		tolvard_trace(TRACE_GENERAL,
		    "Init: We are neither Master nor StandBy");
		break;
	}
	tolvard_state.platform_ok = 1;
	tolvard_state.db_up = 1;
}

/* The zeroed range is plain data; a pointer or list added inside it must
 * not be cleared by memset. */
static_assert(offsetof(struct tolvard_state, timer_context) <
    offsetof(struct tolvard_state, conn_lost));
static_assert(offsetof(struct tolvard_state, conn_lost) <
    offsetof(struct tolvard_state, free_list));

namespace {
bool pid_file_ours;	/* this process holds the pid lock */
}

int tolvard_pidlock(void)
{
	int fd = pid_lock(TOLVARD_PID_FILE);

	if (fd < 0) {
		tolvard_event(TOLVARD_PID_FILE_LOCK, platform_progname());
		TOLVARD_EXIT(1);
	}
	pid_file_ours = true;
	return fd;
}

/* At a clean exit; only the daemon that holds the lock removes it. */
void tolvard_pid_remove(void)
{
	if (pid_file_ours)
		unlink(tolvar::path(TOLVARD_PID_FILE).c_str());
	pid_file_ours = false;
}

void tolvard_timer_assert(const char *message)
{
	tolvard_trace(TRACE_GENERAL, "Otimers init failed %s", message);
	TOLVARD_EXIT(1);
}

void tolvard_timer_init(void)
{
	if (tolvard_state.timer_context != nullptr)
		return;
	tolvard_state.timer_context = otimer_context_create(
	    tolvard_state.event_context, tolvard_timer_assert);
	if (tolvard_state.timer_context == nullptr) {
		tolvard_trace(TRACE_GENERAL, "Failed to init timer context");
		tolvard_event(TOLVARD_TIMER_INIT_FAILED);
		TOLVARD_EXIT(1);
	}
}

void tolvard_exit(const char *function, int line, int code)
{
	if (code > 0)
		tolvard_trace(TRACE_GENERAL, "%s: line %d, exited with code %d",
		    function, line, code);
	exit(code);
}
