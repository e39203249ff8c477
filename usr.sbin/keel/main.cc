/*
 * keel: starts first on each routing engine, creates the main segment,
 * the semaphores and the stores, and holds them for the life of the
 * system.  SIGTERM ends it cleanly; the stores stay for the next keel.
 */
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <platform/ev.h>
#include <platform/logging.h>
#include <platform/notify.h>
#include <platform/paths.h>
#include <platform/process.h>
#include <platform/trace.h>
#include <sdb/keel.h>
#include <sdb/keel_msg.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>

#include "keel.h"

namespace {

constexpr int trace_database = 0;

daemon_trace_file_t *trace_file;
volatile sig_atomic_t terminate_requested;

void trace_sdb(struct keel_handle *, int, const char *fmt, va_list ap)
{
	daemon_tracev(trace_file, trace_database, 0, fmt, ap);
}

void trace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void trace(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	daemon_tracev(trace_file, trace_database, 0, fmt, ap);
	va_end(ap);
}

void print_usage(FILE *to)
{
	fputs("usage: keel [-N] [-v]\n"
	      "\t-N\tdo not fork\n"
	      "\t-v\tversion only\n", to);
}

[[noreturn]] void usage(void)
{
	print_usage(stderr);
	exit(2);
}

/* A failure the operator must see: stderr (in the foreground) and trace. */
void fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void fail(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	fputs("keel: ", stderr);
	vfprintf(stderr, fmt, ap);
	fputc('\n', stderr);
	va_end(ap);
	va_start(ap, fmt);
	daemon_tracev(trace_file, trace_database, 0, fmt, ap);
	va_end(ap);
}

void on_terminate(int)
{
	terminate_requested = 1;
}

void install_signals(void)
{
	struct sigaction sa = {};
	sa.sa_handler = on_terminate;
	sigemptyset(&sa.sa_mask);
	sigaction(SIGTERM, &sa, nullptr);
	sigaction(SIGINT, &sa, nullptr);
	sa.sa_handler = SIG_IGN;
	sigaction(SIGPIPE, &sa, nullptr);
}

void sync_handler(evContext ctx, void *)
{
	if (terminate_requested)
		__evBreak(ctx);
}

/*
 * A SIGTERM that lands between the last check and the loop's first wait
 * would otherwise sleep until the next event: a slow tick bounds that.
 */
void tick(evContext, void *, struct timespec, struct timespec)
{
}

/* Open the database as its owner: create what is missing. */
keel_handle *open_database(void)
{
	keel_handle *h = keel_init_handle();
	if (h == nullptr)
		return nullptr;
	int rc = keel_register(h);
	if (rc != 0) {
		trace("Failed to open SDB %s", sdb_strerror(rc));
		logging_event(3, "KEEL_SDB_OPEN_FAILED", nullptr,
		    "KEEL_SDB_OPEN_FAILED: keel could not open the session "
		    "database: %d %s", rc, sdb_strerror(rc));
		keel_unregister(&h);
		return nullptr;
	}
	uint32_t status = 0;
	sdb_recovery_status_get(&status);
	trace("database open: scale class %u, %s, recovery status %u",
	    sdb_client_count(), sdb_is_master ? "master" : "standby", status);
	return h;
}

} // namespace

int main(int argc, char **argv)
{
	bool foreground = false;
	int version = 0;
	int ch;
	if (argc == 2 && strcmp(argv[1], "--help") == 0) {
		print_usage(stdout);
		return 0;
	}
	if (argc == 2 && strcmp(argv[1], "--version") == 0)
		version = 1;
	else while ((ch = getopt(argc, argv, "Nv")) != -1) {
		switch (ch) {
		case 'N':
			foreground = true;
			break;
		case 'v':
			version++;
			break;
		default:
			usage();
		}
	}
	/* "keel help" must not start a keel. */
	if (version == 0 && optind < argc) {
		fprintf(stderr, "keel: unexpected operand \"%s\"\n", argv[optind]);
		usage();
	}
	if (version > 0) {
		show_daemon_version(STDOUT_FILENO, version, 0);
		return 0;
	}
	trace_file = daemon_trace_initialize(KEEL_TRACE_FILE);
	sdb_set_trace_fn(trace_sdb);
	logging_register_logfunc(event_send_vsyslog);

	int pid_fd = pid_lock(KEEL_PID_FILE);
	if (pid_fd < 0) {
		fail("another keel is running, exiting");
		return 1;
	}
	/* In the background the standard streams go to /dev/null. */
	if (!foreground && daemon(0, 0) != 0) {
		fail("daemon: %s", strerror(errno));
		return 1;
	}
	if (pid_update(pid_fd) != 0) {
		fail("cannot write the pid file");
		return 1;
	}
	install_signals();
	evContext ctx;
	if (__evCreate(&ctx) != 0) {
		fail("Unable to create event context: %s", strerror(errno));
		return 1;
	}
	__evSetSyncHandler(ctx, sync_handler, nullptr);
	evTimerID tick_id;
	__evSetTimer(ctx, tick, nullptr,
	    __evAddTime(__evNowTime(), __evConsTime(1, 0)),
	    __evConsTime(1, 0), &tick_id);
	if (keel_registration_start(ctx) != 0) {
		fail("cannot start the registration server: %s",
		    strerror(errno));
		return 1;
	}
	keel_handle *h = open_database();
	if (h == nullptr) {
		fail("cannot open the session database; see %s",
		    KEEL_TRACE_FILE);
		keel_registration_stop();
		return 1;
	}
	keel_registration_ready(1);
	trace("keel started, pid %d", (int)getpid());
	platform_notify("READY=1");

	if (!terminate_requested)
		__evMainLoopSync(ctx);

	trace("keel exiting on SIGTERM");
	keel_registration_ready(0);
	keel_registration_stop();
	int rc = keel_unregister(&h);
	if (rc != 0)
		trace("close of the database: %s", sdb_strerror(rc));
	__evDestroy(ctx);
	/* A clean exit leaves no socket that nobody answers, and no pid. */
	unlink(tolvar::path(KEEL_SOCKET_PATH).c_str());
	unlink(tolvar::path(KEEL_PID_FILE).c_str());
	daemon_trace_close(trace_file);
	return 0;
}
