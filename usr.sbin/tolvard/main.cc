/*
 * tolvard: command line and start-up.
 */
#include "tolvard.h"
#include "events.h"

#include <platform/logging.h>
#include <platform/process.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

struct options {
	bool check = false;		/* -C */
	bool foreground = false;	/* -N */
	bool xml = false;		/* -X */
	int version = 0;		/* -v, counted */
	bool stats = false;		/* -s */
};

[[noreturn]] void usage(int option)
{
	tolvard_event(TOLVARD_ARGUMENT_FAILURE, option);
	fputs("usage: tolvard [-C] [-N] [-X] [-v] [-d] [-D] [-s] [-c]\n"
	      "\t-C\tcheck syntax of configuration only\n"
	      "\t-N\tdo not fork\n"
	      "\t-X\tuse XML\n"
	      "\t-v\tversion only\n"
	      "\t-d\tset debugging\n"
	      "\t-s\tdisplay DB stats\n", stderr);
	/* A bad command line is the operator's slip, not a failure of the
	 * daemon: the one failure that exits 0. */
	exit(0);
}

/*
 * -d, -D and -c are in the option string but have no meaning: they take
 * the unknown option path like a letter that is not there at all.
 */
options parse_options(int argc, char **argv)
{
	options o;
	int ch;

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
	return o;
}

[[noreturn]] void check_mode(void)
{
	TOLVARD_EXIT(tolvard_config_read(1) ? 0 : 1);
}

[[noreturn]] void stats_mode(void)
{
	tolvard_config_read(0);
	tolvard_open();
	tolvard_state.debug = 1;
	tolvard_stats_dump();
	tolvard_close();
	exit(0);
}

void create_event_context(void)
{
	if (__evCreate(&tolvard_state.event_context) != 0) {
		const char *why = strerror(errno);
		tolvard_trace(TRACE_GENERAL, "Unable to create event context: %s", why);
		tolvard_event(TOLVARD_EVENT_CTX_CREATE_FAILED, why);
		TOLVARD_EXIT(1);
	}
}

void daemonize(bool foreground)
{
	if (foreground)
		return;
	/* The pid lock is an flock on the open file: the child keeps it
	 * when the parent exits inside daemon(). */
	if (daemon(0, 1) != 0) {
		tolvard_event(TOLVARD_DAEMONIZE_FAILED, strerror(errno));
		TOLVARD_EXIT(1);
	}
}

void pid_file_update(int fd)
{
	if (pid_update(fd) != 0) {
		tolvard_event(TOLVARD_PID_FILE_UPDATE, platform_progname());
		TOLVARD_EXIT(1);
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

	__evMainLoopSync(tolvard_state.event_context);
	tolvard_trace(TRACE_GENERAL, "Unexpected exit from evMainLoop: %s",
	    strerror(errno));
	tolvard_shutdown();
	return 1;
}
