#include "platform/timescale.h"

#include <cmath>
#include <cstdlib>

extern "C" double tolvar_timescale(void)
{
	static const double scale = [] {
		const char *env = std::getenv("TOLVAR_TEST_TIMESCALE");
		if (env == nullptr)
			return 1.0;
		char *end = nullptr;
		double v = std::strtod(env, &end);
		if (end == env || !(v >= 1.0) || !std::isfinite(v))
			return 1.0;
		return v;
	}();
	return scale;
}

extern "C" struct timespec tolvar_scaled_secs(double seconds)
{
	double s = seconds / tolvar_timescale();
	struct timespec ts;
	ts.tv_sec = static_cast<time_t>(s);
	ts.tv_nsec = static_cast<long>((s - static_cast<double>(ts.tv_sec)) * 1e9);
	return ts;
}

extern "C" long tolvar_scaled_ms(double seconds)
{
	long ms = static_cast<long>(seconds * 1000.0 / tolvar_timescale());
	if (ms < 1 && seconds > 0)
		ms = 1;
	return ms;
}
