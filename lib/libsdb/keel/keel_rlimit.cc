/*
 * Shared mappings fail when the data limit has taken the address space, so
 * each retry of the open gives some back: unlimited becomes 3 GiB, and
 * from there every retry steps down by 53,687,091 bytes, never to or below
 * the floor of 2 GiB.
 */
#include "keel_private.h"

#include <platform/logging.h>

#include <cerrno>
#include <cstring>
#include <sys/resource.h>

namespace {

constexpr unsigned long long unlimited = 0x7FFFFFFFFFFFFFFFULL;
constexpr unsigned long long first_step = 0xC0000000ULL;
constexpr long long floor_bytes = 0x80000000LL;
constexpr unsigned long long step = 0x3333333ULL;

const char *const no_attrs[] = {nullptr};

void
not_attempted(const char *func, int line)
{
	logging_event(7, "LIBSDB_SETRLIMIT_NOT_ATTEMPTED", no_attrs,
	    "LIBSDB_SETRLIMIT_NOT_ATTEMPTED: %s:%d setrlimit() not attempted, "
	    "at-or-below data rlimit floor: %lld\n", func, line, floor_bytes);
}

} // namespace

void
set_rlimits_retry_i386(void)
{
	struct rlimit rl;

	if (getrlimit(RLIMIT_DATA, &rl) != 0) {
		logging_event(3, "LIBSDB_KEEL_GET_RLIMIT_FAILURE", no_attrs,
		    "LIBSDB_KEEL_GET_RLIMIT_FAILURE: %s:%d getrlimit() failed: %d",
		    __func__, __LINE__, errno);
		return;
	}
	unsigned long long next;
	long long soft = static_cast<long long>(rl.rlim_cur);
	if (static_cast<unsigned long long>(rl.rlim_cur) >= unlimited)
		next = first_step;
	else if (soft <= floor_bytes) {
		not_attempted(__func__, __LINE__);
		return;
	} else {
		next = static_cast<unsigned long long>(rl.rlim_max) - step;
		/*
		 * Stepping from the hard limit could land at or below the
		 * floor that the soft limit test guards; hold the floor.
		 */
		if (next == 0 || static_cast<long long>(next) <= floor_bytes) {
			not_attempted(__func__, __LINE__);
			return;
		}
	}
	rl.rlim_cur = next;
	rl.rlim_max = next;
	if (setrlimit(RLIMIT_DATA, &rl) != 0) {
		logging_event(4, "LIBSDB_KEEL_SET_RLIMIT_FAILURE", no_attrs,
		    "LIBSDB_KEEL_SET_RLIMIT_FAILURE: %s:%d setrlimit() failed "
		    "at %llu: %s", __func__, __LINE__, next, strerror(errno));
		return;
	}
	logging_event(7, "LIBSDB_KEEL_RLIMIT_SUCCESS", no_attrs,
	    "LIBSDB_KEEL_RLIMIT_SUCCESS: %s:%d setrlimit() succeeded: %llu",
	    __func__, __LINE__, next);
}
