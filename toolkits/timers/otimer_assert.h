/*
 * Internal assertions of the timer toolkit.  A failure formats
 * "file:line: assert 'expression' failed" and hands it to the process's
 * fatal handler, if one was given.  The toolkit carries on if the handler
 * returns, so every caller of OTIMER_CHECK leaves its structures as they
 * were when the check fails.
 */
#ifndef TIMERS_OTIMER_ASSERT_H
#define TIMERS_OTIMER_ASSERT_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*otimer_fatal_fn)(const char *message);

void otimer_assert(const char *file, int line, const char *expression);
/* One handler per process; NULL leaves the current one in place. */
void otimer_set_fatal_handler(otimer_fatal_fn handler);
otimer_fatal_fn otimer_get_fatal_handler(void);

#ifdef __cplusplus
}
#endif

/* True when expr holds; otherwise reports it and yields false. */
#define OTIMER_CHECK(expr) \
	((expr) ? true : (otimer_assert(__FILE__, __LINE__, #expr), false))
/* Reports a failure whose text is a message rather than an expression. */
#define OTIMER_FAIL(text) otimer_assert(__FILE__, __LINE__, text)

#endif
