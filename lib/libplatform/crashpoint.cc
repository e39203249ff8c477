#include "platform/crashpoint.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

namespace {

struct armed_point {
	std::string name;
	unsigned count = 1;
	unsigned passes = 0;
	tolvar_crash_action action = TOLVAR_CRASH_KILL;
};

armed_point &point()
{
	static armed_point p;
	return p;
}

/* name[@N][:stop]; anything malformed arms nothing. */
void arm_from_environment()
{
	const char *env = std::getenv("TOLVAR_CRASH_AT");
	if (env == nullptr || *env == '\0')
		return;
	std::string want(env);
	tolvar_crash_action action = TOLVAR_CRASH_KILL;
	if (auto colon = want.rfind(':'); colon != std::string::npos) {
		if (want.compare(colon, std::string::npos, ":stop") != 0)
			return;
		action = TOLVAR_CRASH_STOP;
		want.resize(colon);
	}
	unsigned count = 1;
	if (auto at = want.rfind('@'); at != std::string::npos) {
		char *end = nullptr;
		unsigned long n = std::strtoul(want.c_str() + at + 1, &end, 10);
		if (end == want.c_str() + at + 1 || *end != '\0' || n == 0 ||
		    n > 0xffffffffUL)
			return;
		count = static_cast<unsigned>(n);
		want.resize(at);
	}
	if (want.empty())
		return;
	tolvar_crash_point_arm(want.c_str(), count, action);
}

/* Before main, so that a mark reached during static set-up is armed too. */
[[gnu::constructor]] void crash_point_init()
{
	arm_from_environment();
}

} /* namespace */

volatile int tolvar_crash_armed;

extern "C" void tolvar_crash_point_arm(const char *name, unsigned count,
    enum tolvar_crash_action action)
{
	armed_point &p = point();
	tolvar_crash_armed = 0;
	if (name == nullptr)
		return;
	p.name = name;
	p.count = count == 0 ? 1 : count;
	p.passes = 0;
	p.action = action;
	tolvar_crash_armed = 1;
}

extern "C" void tolvar_crash_point_hit(const char *name)
{
	armed_point &p = point();
	if (!tolvar_crash_armed || p.name != name)
		return;
	if (++p.passes != p.count)
		return;
	/* Once stopped and continued, the window is past: do not fire again. */
	tolvar_crash_armed = 0;
	raise(p.action == TOLVAR_CRASH_STOP ? SIGSTOP : SIGKILL);
}

extern "C" unsigned tolvar_crash_point_passes(const char *name)
{
	const armed_point &p = point();
	return name != nullptr && p.name == name ? p.passes : 0;
}
