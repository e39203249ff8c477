/*
 * What sdbctl knows of this engine: its role and what the running tolvard
 * says of itself in its status file.
 */
#ifndef SDBCTL_ENGINE_H
#define SDBCTL_ENGINE_H

#include <string>
#include <utility>
#include <vector>

struct tolvard_view {
	bool running = false;	/* a live tolvard wrote the file */
	std::vector<std::pair<std::string, std::string>> keys;	/* in order */
	std::string get(const char *key) const;	/* "" when absent */
};

/* The running tolvard's status; view.running false when none runs. */
tolvard_view sdbctl_tolvard_view(void);

/* "Master", "Standby" or "None": tolvard's word, else the platform's. */
std::string sdbctl_engine_role(const tolvard_view &view);

/*
 * May this process hand out ids or units here?  Only a master whose
 * tolvard has raised the id word may.  Returns 0, or prints why not to
 * stderr and returns the exit code; force skips the check.
 */
int sdbctl_may_hand_out(const char *what, bool force);

/* Remove every argv[i] (i >= 1) equal to flag; true when there was one. */
bool sdbctl_take_flag(int *argc, char **argv, const char *flag);

#endif
