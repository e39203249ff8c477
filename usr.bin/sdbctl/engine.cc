#include "engine.h"
#include "sdbctl.h"

#include <platform/chassis.h>
#include <platform/paths.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

/* Where tolvard keeps its status; see tolvard(8). */
#define TOLVARD_STATUS_FILE "/var/run/tolvard.status"

std::string tolvard_view::get(const char *key) const
{
	for (const auto &[k, v] : keys)
		if (k == key)
			return v;
	return "";
}

tolvard_view sdbctl_tolvard_view(void)
{
	tolvard_view view;
	std::ifstream in(tolvar::path(TOLVARD_STATUS_FILE));
	std::string line;

	while (std::getline(in, line)) {
		size_t eq = line.find('=');
		if (eq != std::string::npos)
			view.keys.emplace_back(line.substr(0, eq),
			    line.substr(eq + 1));
	}
	long pid = strtol(view.get("pid").c_str(), nullptr, 10);
	view.running = pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 ||
	    errno == EPERM);
	return view;
}

std::string sdbctl_engine_role(const tolvard_view &view)
{
	if (view.running && !view.get("role").empty())
		return view.get("role");
	if (mcontrol_re_is_master_reboot_pending())
		return "None";
	return nmchassis_is_generic_protocol_master() ? "Master" : "Standby";
}

int sdbctl_may_hand_out(const char *what, bool force)
{
	if (force)
		return 0;
	tolvard_view view = sdbctl_tolvard_view();
	std::string role = sdbctl_engine_role(view);
	if (role != "Master") {
		fprintf(stderr, "sdbctl %s: this engine is %s; only the master "
		    "hands out ids and units (--force to do it anyway)\n", what,
		    role.c_str());
		return SDBCTL_EXIT_FAIL;
	}
	if (view.running && view.get("ids_open") != "yes") {
		fprintf(stderr, "sdbctl %s: tolvard has not yet raised the "
		    "session id of this new master; try again (--force to do "
		    "it anyway)\n", what);
		return SDBCTL_EXIT_FAIL;
	}
	return 0;
}

bool sdbctl_take_flag(int *argc, char **argv, const char *flag)
{
	bool found = false;
	int out = 1;

	for (int i = 1; i < *argc; i++) {
		if (strcmp(argv[i], flag) == 0)
			found = true;
		else
			argv[out++] = argv[i];
	}
	*argc = out;
	argv[out] = nullptr;
	return found;
}
