/*
 * Configuration read.  The daemon has no file of its own: all it needs is
 * whether graceful switchover is configured under chassis redundancy (or
 * implied by a cluster), and it learns that from the configuration
 * database at start and on every SIGHUP.
 */
#include "tolvard.h"

#include <platform/chassis.h>
#include <platform/dax.h>

#include <platform/paths.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#define TOLVARD_SCHEMA		"okernel"
#define TOLVARD_SCHEMA_NUMBER	462432747u

/*
 * True when graceful switchover is configured.  errmsg is left empty when
 * the answer is simply "no", and holds the reason when the configuration
 * could not be read.
 */
int tolvard_process_graceful_restart_cfg(char *errmsg, size_t errlen)
{
	static const char *const path[] = {
		"chassis", "redundancy", "graceful-switchover", nullptr
	};
	ddl_handle_t *obj = nullptr;

	errmsg[0] = '\0';
	if (ddl_access_object_find_by_name(nullptr, path, &obj, errmsg, errlen)) {
		tolvard_trace(TRACE_GENERAL, "Graceful Switchover configured");
		ddl_access_release(obj);
		return 1;
	}
	if (errmsg[0] != '\0') {
		tolvard_trace(TRACE_GENERAL,
		    "Error determining Graceful Switchover configuration, msg: %s",
		    errmsg);
		tolvard_state.config_errors++;
	} else
		tolvard_trace(TRACE_GENERAL, "Graceful Switchover not configured");
	return 0;
}

/*
 * Returns 1 when the configuration database could be read, 0 when it could
 * not be opened.  Only gres_configured changes; acting on it is
 * tolvard_gres_sync()'s business.
 */
int tolvard_config_read(int check)
{
	char errmsg[256];
	int rc;

	rc = dax_open_db(nullptr, "tolvard", TOLVARD_SCHEMA,
	    TOLVARD_SCHEMA_NUMBER, check);
	if (rc != 0) {
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error opening configuration database (check: %u): %s",
		    __func__, static_cast<unsigned>(check), strerror(rc));
		return 0;
	}
	if (check)
		tolvard_trace(TRACE_GENERAL, "=== Configuration CHECK ===");

	tolvard_state.config_errors = tolvard_id_margin_config(check);
	int found = tolvard_process_graceful_restart_cfg(errmsg, sizeof(errmsg));
	if (check && errmsg[0] != '\0')
		fprintf(stderr, "tolvard: %s\n", errmsg);
	nmchassis_setup_capabilities();
	if (nmchassis_cluster_is_enabled() || found)
		tolvard_state.gres_configured = 1;
	else if (errmsg[0] != '\0')
		/* Unreadable is not "off": keep what the last good read said,
		 * so that a bad edit does not tear down replication. */
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error determining Graceful Switchover configuration, msg: %s",
		    __func__, errmsg);
	else
		tolvard_state.gres_configured = 0;

	rc = dax_close_db();
	if (rc != 0)
		tolvard_trace(TRACE_GENERAL,
		    "%s: Error closing configuration database (check: %u): %s",
		    __func__, static_cast<unsigned>(check), strerror(rc));
	tolvard_trace(TRACE_GENERAL, "Config read ended in status %d", 1);
	if (check)
		tolvard_trace(TRACE_GENERAL, "=== Configuration CHECK DONE ===");
	return 1;
}

namespace {

/* The keys of the platform file, and what each may hold. */
struct platform_key {
	const char *name;
	const char *const *values;	/* nullptr: any */
};

constexpr const char *roles[] = {"master", "standby", "none", nullptr};
constexpr const char *scales[] = {"100", "8000", "48000", "512000", nullptr};
constexpr const char *flags[] = {"0", "1", nullptr};

constexpr platform_key platform_keys[] = {
	{"role", roles},
	{"scale_class", scales},
	{"peer_address", nullptr},
	{"local_address", nullptr},
	{"cluster", flags},
	{"virtual_chassis", flags},
	{"master_reboot_pending", flags},
	{"l3_ha", flags},
	{"enhanced_bbe", flags},
	{"large_id_space", flags},
	{"session_db", flags},
	{"maxsockbuf", nullptr},
	{"installed_mem_512b", nullptr},
};

std::string trim(const std::string &s)
{
	size_t b = s.find_first_not_of(" \t\r");
	if (b == std::string::npos)
		return "";
	return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

const char *platform_line_error(const std::string &key, const std::string &value)
{
	for (const platform_key &k : platform_keys) {
		if (key != k.name)
			continue;
		if (k.values == nullptr)
			return nullptr;
		for (const char *const *v = k.values; *v != nullptr; v++)
			if (value == *v)
				return nullptr;
		return "value out of range";
	}
	return "unknown key";
}

} // namespace

/*
 * -C: the platform file, line by line.  Each error goes to stderr; the
 * result is their number.  A missing file is none: the daemon then runs
 * without a role, as it does on an engine that has none.
 */
int tolvard_platform_check(void)
{
	std::string path = tolvar::path(PLATFORM_FILE_PATH);
	std::ifstream in(path);
	std::string line;
	int errors = 0;

	if (!in)
		return 0;
	for (int n = 1; std::getline(in, line); n++) {
		std::string text = line.substr(0, line.find('#'));
		if (trim(text).empty())
			continue;
		size_t eq = text.find('=');
		std::string key = trim(text.substr(0, eq));
		std::string value = eq == std::string::npos ? ""
		    : trim(text.substr(eq + 1));
		const char *why = eq == std::string::npos ? "not key = value"
		    : platform_line_error(key, value);
		if (why != nullptr) {
			fprintf(stderr, "tolvard: %s:%d: %s: %s\n", path.c_str(), n,
			    why, trim(line).c_str());
			errors++;
		}
	}
	return errors;
}
