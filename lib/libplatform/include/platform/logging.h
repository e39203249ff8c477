/*
 * System events.  logging_event() sends one event to syslog and appends it
 * to the structured event log "<root>/var/log/events", one line per event,
 * fields separated by tabs:
 *
 *   <time> <program>[<pid>] <priority> <tag> <attr,attr,...> <text>
 *
 * time is UTC ISO 8601 with microseconds, priority is printed as "0x%x" and
 * the attribute list is "-" when empty.  Tests read this file.
 */
#ifndef PLATFORM_LOGGING_H
#define PLATFORM_LOGGING_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Priorities: the low byte is a syslog level; 0xFF03 is an error that the
 * platform logger marks as internal.  Values are passed unchanged. */
#define LOG_PRI_INTERNAL_ERR 0xFF03
#define LOG_PRI_INTERNAL_INFO 0xFF07

#define EVENT_LOG_PATH "/var/log/events"

typedef void (*logging_func_t)(int priority, const char *fmt, va_list ap);

void logging_set_mode(int mode);
void logging_set_level(int level);
void logging_register_logfunc(logging_func_t fn);
/* The syslog sender that daemons register with logging_register_logfunc. */
void event_send_vsyslog(int priority, const char *fmt, va_list ap);

/* attrs: NULL-terminated list of attribute names, one per format value. */
void logging_event(int priority, const char *tag, const char *const *attrs,
                   const char *fmt, ...) __attribute__((format(printf, 4, 5)));
void logging_eventv(int priority, const char *tag, const char *const *attrs,
                    const char *fmt, va_list ap)
    __attribute__((format(printf, 4, 0)));
/* Plain log line without a tag. */
void logging(int priority, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
