/*
 * Signals.  The handlers only raise a flag; tolvard_signal_sync() does the
 * work from the event loop, once per turn, so that a signal never
 * interrupts the daemon in the middle of a change to its state.
 */
#include "tolvard.h"

#include <platform/signals.h>

#include <cstdlib>

namespace {

void on_sighup(int)
{
	tolvard_state.sig_hup = 1;
}

void on_siginfo(int)
{
	tolvard_state.sig_info = 1;
}

void on_sigterm(int)
{
	tolvard_state.sig_term = 1;
}

void on_sigusr1(int)
{
	tolvard_state.sig_usr1 = 1;
}

void on_sigusr2(int)
{
	tolvard_state.sig_usr2 = 1;
}

void install(int sig, void (*handler)(int), const char *name)
{
	struct sigaction sa = {};

	sa.sa_handler = handler;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = SA_RESTART;
	if (sigaction(sig, &sa, nullptr) != 0) {
		tolvard_trace(TRACE_GENERAL, "Failed to create %s handler", name);
		TOLVARD_EXIT_AS("tolvard_signal_init", 1);
	}
}

/* Test and clear a flag in one step, as seen from the loop. */
bool take(volatile sig_atomic_t &flag)
{
	if (!flag)
		return false;
	flag = 0;
	return true;
}

void reload_configuration(void)
{
	if (tolvard_mirror_mastership_change() != 0)
		return;		/* a role change reads nothing this time */
	tolvard_trace(TRACE_GENERAL, "=== Begin reloading configuration ===");
	tolvard_config_read(0);
	tolvard_gres_sync();
}

} // namespace

void tolvard_signal_init(void)
{
	install(SIGHUP, on_sighup, "SIGHUP");
	install(SIGINFO, on_siginfo, "SIGINFO");
	install(SIGTERM, on_sigterm, "SIGTERM");
	install(SIGUSR1, on_sigusr1, "SIGUSR1");
	install(SIGUSR2, on_sigusr2, "SIGUSR2");
	install(SIGPIPE, SIG_IGN, "SIGPIPE");
	if (__evSetSyncHandler(tolvard_state.event_context, tolvard_signal_sync,
	    nullptr) != 0) {
		tolvard_trace(TRACE_GENERAL, "Failed to set Signal handler");
		TOLVARD_EXIT(1);
	}
}

void tolvard_signal_sync(evContext ctx, void *arg)
{
	(void)ctx;
	(void)arg;
	if (take(tolvard_state.sig_usr2))
		tolvard_session_id_check();
	if (take(tolvard_state.sig_usr1)) {
		tolvard_state.debug = !tolvard_state.debug;
		tolvard_trace(TRACE_GENERAL, tolvard_state.debug
		    ? "Enable libtolvar debug" : "Disable libtolvar debug");
	}
	if (take(tolvard_state.sig_hup))
		reload_configuration();
	if (take(tolvard_state.sig_term)) {
		tolvard_trace(TRACE_GENERAL,
		    "received SIGTERM signal: graceful shutdown commencing....");
		tolvard_shutdown();
		exit(0);
	}
	if (take(tolvard_state.sig_info))
		tolvard_stats_dump();
}

void tolvard_stats_dump(void)
{
	tolvard_trace(TRACE_GENERAL, "====== Running stats START ======");
	tolvard_trace(TRACE_GENERAL, "Max buffer full %d times",
	    static_cast<int>(tolvard_state.max_hits));
	tolvard_status_dump();
	tolvard_conn_dump();
	tolvard_trace(TRACE_GENERAL, "====== Running stats FINISH =======");
}
