/*
 * tolvard: command line and start-up.
 */
#include "tolvard.h"
#include "events.h"

#include <platform/logging.h>
#include <platform/notify.h>
#include <platform/paths.h>
#include <platform/process.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace {

struct options {
	bool check = false;		/* -C */
	bool foreground = false;	/* -N */
	bool xml = false;		/* -X */
	int version = 0;		/* -v, counted */
	bool stats = false;		/* -s */
};

void print_usage(FILE *to)
{
	fputs("usage: tolvard [-C] [-N] [-X] [-v] [-d] [-D] [-s] [-c]\n"
	      "\t-C\tcheck syntax of configuration only\n"
	      "\t-N\tdo not fork\n"
	      "\t-X\tuse XML\n"
	      "\t-v\tversion only\n"
	      "\t-d\tset debugging\n"
	      "\t-s\tdisplay DB stats\n", to);
}

[[noreturn]] void usage(int option)
{
	tolvard_event(TOLVARD_ARGUMENT_FAILURE, option);
	print_usage(stderr);
	/* A bad option is the operator's slip, not a failure of the
	 * daemon: the one failure that exits 0. */
	exit(0);
}

/*
 * The long forms every program knows, alone on the line, and words that
 * are not options: "tolvard help" or "tolvard status" must not start a
 * daemon.
 */
void check_words(int argc, char **argv)
{
	if (argc == 2 && strcmp(argv[1], "--help") == 0) {
		print_usage(stdout);
		exit(0);
	}
	if (argc == 2 && strcmp(argv[1], "--version") == 0) {
		show_daemon_version(0, 1, 0);
		exit(0);
	}
}

void check_operands(int argc, char **argv)
{
	if (optind >= argc)
		return;
	fprintf(stderr, "tolvard: unexpected operand \"%s\"\n", argv[optind]);
	print_usage(stderr);
	exit(2);
}

/*
 * -d, -D and -c are in the option string but have no meaning: they take
 * the unknown option path like a letter that is not there at all.
 */
options parse_options(int argc, char **argv)
{
	options o;
	int ch;

	check_words(argc, argv);
	opterr = 0;	/* the usage lines are the only complaint */
	while ((ch = getopt(argc, argv, "CNd:vXDsc")) != -1) {
		switch (ch) {
		case 'C':
			o.check = true;
			break;
		case 'N':
			o.foreground = true;
			break;
		case 'X':
			o.xml = true;
			break;
		case 'v':
			o.version++;
			break;
		case 's':
			o.stats = true;
			break;
		default:
			/* getopt answers '?' for an unknown letter and for -d
			 * without its argument; name the letter itself. */
			usage(ch == '?' ? optopt : ch);
		}
	}
	check_operands(argc, argv);
	return o;
}

/*
 * -C: every error of the configuration and of the platform file on
 * stderr, and the verdict.  Graceful switchover not configured is no
 * error.
 */
[[noreturn]] void check_mode(void)
{
	int errors = 0;
	if (!tolvard_config_read(1)) {
		fprintf(stderr, "tolvard: the configuration database cannot be "
		    "opened\n");
		errors++;
	}
	errors += tolvard_state.config_errors + tolvard_platform_check();
	if (errors > 0) {
		fprintf(stderr, "tolvard: configuration check failed: %d "
		    "error(s)\n", errors);
		TOLVARD_EXIT_AS("main", 1);
	}
	printf("tolvard: configuration OK, graceful switchover %s\n",
	    tolvard_state.gres_configured ? "configured" : "not configured");
	exit(0);
}

/*
 * -s: the running daemon's statistics.  Opening the database here would
 * register a second tolvard with keel beside the running one; instead
 * the running daemon dumps its statistics to its trace (SIGPWR) and its
 * status file is printed.
 */
[[noreturn]] void stats_mode(void)
{
	std::ifstream in(tolvar::path(TOLVARD_STATUS_FILE));
	std::string text((std::istreambuf_iterator<char>(in)),
	    std::istreambuf_iterator<char>());
	size_t at = text.rfind("pid=", 0) == 0 ? 0 : text.find("\npid=");
	long pid = at == std::string::npos ? 0
	    : strtol(text.c_str() + at + (at == 0 ? 4 : 5), nullptr, 10);
	if (pid <= 0 || kill(static_cast<pid_t>(pid), SIGPWR) != 0) {
		fprintf(stderr, "tolvard: no tolvard is running\n");
		exit(1);
	}
	fputs(text.c_str(), stdout);
	printf("(the full statistics are in %s)\n",
	    tolvar::path(TOLVARD_TRACE_FILE).c_str());
	exit(0);
}

void create_event_context(void)
{
	if (__evCreate(&tolvard_state.event_context) != 0) {
		const char *why = strerror(errno);
		tolvard_trace(TRACE_GENERAL, "Unable to create event context: %s", why);
		tolvard_event(TOLVARD_EVENT_CTX_CREATE_FAILED, why);
		TOLVARD_EXIT_AS("main", 1);
	}
}

void daemonize(bool foreground)
{
	if (foreground)
		return;
	/* The pid lock is an flock on the open file: the child keeps it
	 * when the parent exits inside daemon(). */
	/* No terminal stays attached: the standard streams go to
	 * /dev/null. */
	if (daemon(0, 0) != 0) {
		tolvard_event(TOLVARD_DAEMONIZE_FAILED, strerror(errno));
		TOLVARD_EXIT_AS("main", 1);
	}
}

void pid_file_update(int fd)
{
	if (pid_update(fd) != 0) {
		tolvard_event(TOLVARD_PID_FILE_UPDATE, platform_progname());
		TOLVARD_EXIT_AS("main", 1);
	}
}

} // namespace

int main(int argc, char **argv)
{
	options o = parse_options(argc, argv);
	if (o.version > 0) {
		show_daemon_version(0, o.version, o.xml);
		exit(0);
	}

	tolvard_trace_init();
	logging_set_mode(2);
	logging_set_level(6);
	logging_register_logfunc(event_send_vsyslog);
	tolvard_rlimit_init();
	create_event_context();
	tolvard_state_init();

	if (o.check)
		check_mode();
	if (geteuid() != 0) {
		tolvard_event(TOLVARD_NOT_ROOT, platform_progname());
		TOLVARD_EXIT(1);
	}
	if (o.stats)
		stats_mode();

	int pid_fd = tolvard_pidlock();
	daemonize(o.foreground);
	pid_file_update(pid_fd);
	tolvard_timer_init();
	tolvard_signal_init();
	tolvard_config_read(0);
	tolvard_id_margin_start(tolvard_status_previous_heard_at());
	tolvard_status_init();
	tolvard_open();
	/* After a successful open the database-ready callback has done
	 * this already; it matters while the open is being retried. */
	tolvard_mirror_init();
	tolvard_server_init();
	platform_notify("READY=1");

	__evMainLoopSync(tolvard_state.event_context);
	tolvard_trace(TRACE_GENERAL, "Unexpected exit from evMainLoop: %s",
	    strerror(errno));
	tolvard_shutdown();
	return 1;
}
