/*
 * Linux has no SIGINFO.  SIGPWR stands in for it: "kill -PWR" asks a
 * daemon for its statistics.
 */
#ifndef PLATFORM_SIGNALS_H
#define PLATFORM_SIGNALS_H

#include <signal.h>

#ifndef SIGINFO
#define SIGINFO SIGPWR
#endif

#endif
