/*
 * Tracing, system events and the fatal stops of the library.
 */
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <syslog.h>

#include "platform/logging.h"
#include "sdb_impl.h"

sdb_trace_fn_t sdb_trace_fn;

extern "C" void sdb_set_trace_fn(sdb_trace_fn_t fn)
{
	sdb_trace_fn = fn;
}

void sdb_trace(int level, const char *fmt, ...)
{
	sdb_trace_fn_t fn = sdb_trace_fn;
	if (fn == nullptr)
		return;
	va_list ap;
	va_start(ap, fmt);
	fn(sdb_env_handle(), level, fmt, ap);
	va_end(ap);
}

void sdb_event(int priority, const char *tag, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	logging_eventv(priority, tag, nullptr, fmt, ap);
	va_end(ap);
}

/* Both stops leave the line in a global for the core file, then abort. */
volatile int sdb_assert_line;

[[noreturn]] void sdb_lts_assert_fail(const char *expr, const char *file,
    int line)
{
	sdb_assert_line = line;
	sdb_trace(SDB_TRACE_ERR, "LTS assertion failed: %s at %s:%d", expr,
	    file, line);
	fprintf(stderr, "Assertion failed: (%s), file %s, line %d.\n", expr,
	    file, line);
	abort();
}

[[noreturn]] void sdb_secondary_assert_fail(const char *expr,
    const char *file, int line)
{
	sdb_assert_line = line;
	sdb_trace(SDB_TRACE_ERR, "secondary assertion failed: %s at %s:%d",
	    expr, file, line);
	fprintf(stderr, "Assertion failed: (%s), file %s, line %d.\n", expr,
	    file, line);
	abort();
}
