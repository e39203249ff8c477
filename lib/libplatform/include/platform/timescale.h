/*
 * Long protocol constants (30 s, 60 s, 900 s) are written as they are
 * meant.  Tests shorten them through one environment variable,
 * TOLVAR_TEST_TIMESCALE, a divisor that is off (1) by default:
 * TOLVAR_TEST_TIMESCALE=100 turns 30 s into 300 ms.
 */
#ifndef PLATFORM_TIMESCALE_H
#define PLATFORM_TIMESCALE_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The divisor in effect; 1 when the variable is unset or invalid. */
double tolvar_timescale(void);

/* seconds / divisor, as a timespec. */
struct timespec tolvar_scaled_secs(double seconds);

/* seconds / divisor in milliseconds, at least 1 for a positive input. */
long tolvar_scaled_ms(double seconds);

#ifdef __cplusplus
}
#endif

#endif
