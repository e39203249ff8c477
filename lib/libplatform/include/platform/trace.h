/*
 * Trace files: one line per call, "<time> <program>[<pid>] <category> <text>",
 * appended to a file below the root.  Tests read these lines, so the text
 * that callers pass is written unchanged.
 */
#ifndef PLATFORM_TRACE_H
#define PLATFORM_TRACE_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct daemon_trace_file daemon_trace_file_t;

/* path is absolute and resolved below the root; NULL on failure. */
daemon_trace_file_t *daemon_trace_initialize(const char *path);
void daemon_trace_close(daemon_trace_file_t *tf);
void daemon_trace(daemon_trace_file_t *tf, int category, int flags,
                  const char *fmt, ...) __attribute__((format(printf, 4, 5)));
void daemon_tracev(daemon_trace_file_t *tf, int category, int flags,
                   const char *fmt, va_list ap)
    __attribute__((format(printf, 4, 0)));

#ifdef __cplusplus
}
#endif

#endif
