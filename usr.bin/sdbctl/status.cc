/*
 * sdbctl status [--json]: one view of this engine.  What tolvard says of
 * itself (role, mirror link, readiness, restart, traffic, keel
 * registration) comes from its status file; the environment and the id
 * word come from registering with keel as a client.
 */
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <sdb/keel.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_id.h>

#include "attach.h"
#include "engine.h"
#include "sdbctl.h"

namespace {

const char *recovery_name(uint32_t status)
{
	switch (status) {
	case SDB_RECOVERY_OPENED: return "opened";
	case SDB_RECOVERY_REBUILDING: return "rebuilding";
	case SDB_RECOVERY_DONE: return "complete";
	default: return "none";
	}
}

/* Fields in order: the key of --json and the label of the text form. */
struct field {
	std::string key, label, value;
	bool number;
};

std::string u64(uint64_t v)
{
	return std::to_string(v);
}

std::string when(const std::string &epoch)
{
	char buf[64];
	time_t t = static_cast<time_t>(strtoll(epoch.c_str(), nullptr, 10));
	struct tm tm;
	if (t <= 0 || localtime_r(&t, &tm) == nullptr ||
	    strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm) == 0)
		return "-";
	return buf;
}

void add(std::vector<field> &out, const char *key, const char *label,
    std::string value, bool number = false)
{
	out.push_back({key, label, std::move(value), number});
}

void tolvard_fields(std::vector<field> &out, const tolvard_view &v)
{
	add(out, "role", "role", sdbctl_engine_role(v));
	add(out, "tolvard", "tolvard", v.running
	    ? "running, pid " + v.get("pid") : "not running");
	if (!v.running)
		return;
	add(out, "graceful_switchover", "graceful switchover",
	    v.get("graceful_switchover"));
	add(out, "link", "mirror link", v.get("link"));
	add(out, "peer", "peer", v.get("peer"));
	add(out, "link_since", "link state since", when(v.get("link_since")));
	add(out, "last_close", "last close", v.get("last_close"));
	add(out, "replication_ready", "replication ready",
	    v.get("replication_ready"));
	add(out, "ids_open", "ids may be handed out", v.get("ids_open"));
	add(out, "id_margin_added", "id margin added at the last change to master",
	    v.get("id_margin_added"), true);
	/*
	 * The master knows how far the standby is behind: the ids handed out
	 * since the last one it sent.  The standby cannot know.
	 */
	if (v.get("role") == "Master" && v.get("link") == "up") {
		uint64_t id = strtoull(v.get("session_id").c_str(), nullptr, 10);
		uint64_t sent = strtoull(v.get("session_id_sent").c_str(),
		    nullptr, 10);
		add(out, "lag", "standby behind by (ids)",
		    u64(id > sent ? id - sent : 0), true);
	} else {
		add(out, "lag", "standby behind by (ids)", "unknown");
	}
	add(out, "restart_in", "restart in (seconds)", v.get("restart_in"));
	add(out, "keel", "keel", v.get("keel"));
	for (const char *k : {"records_sent", "records_received", "bytes_sent",
	    "bytes_received", "link_closes", "conn_lost", "barriers_acked",
	    "barriers_lost", "max_hits"}) {
		std::string label = k;
		for (char &c : label)
			if (c == '_')
				c = ' ';
		add(out, k, label.c_str(), v.get(k), true);
	}
}

void database_fields(std::vector<field> &out)
{
	int state = sdb_db_env_state();
	add(out, "environment_state", "environment state", u64(state) + " (" +
	    sdb_db_env_state_name(state) + ")");
	add(out, "scale_class", "scale class", u64(sdb_client_count()), true);
	add(out, "large_id_space", "large id space",
	    sdb_large_id_space() ? "yes" : "no");
	uint32_t rs = 0;
	sdb_recovery_status_get(&rs);
	add(out, "recovery_status", "recovery status", u64(rs) + " (" +
	    recovery_name(rs) + ")");
	volatile uint64_t *word = sdb_id_word();
	uint64_t last = word != nullptr ? *word : 0;
	add(out, "last_session_id", "last session id", u64(last), true);
	/* What the generator hands out next: past the end it wraps to 1. */
	add(out, "next_session_id", "next session id",
	    u64(last >= SDB_ID_MAX ? 1 : last + 1), true);
	uint8_t sync_state = 0, sync_flag = 0;
	uint32_t percent = 0;
	char text[SDB_STATUS_TEXT_LEN];
	sdb_status_block_get(&sync_state, &sync_flag, text, sizeof(text),
	    &percent);
	add(out, "sync_state", "sync state", u64(sync_state), true);
	add(out, "sync_flag", "sync flag", u64(sync_flag), true);
	add(out, "sync_text", "sync text", text);
	add(out, "sync_progress", "sync progress (%)", u64(percent), true);
}

void json_string(const std::string &s)
{
	putchar('"');
	for (unsigned char c : s) {
		if (c == '"' || c == '\\')
			printf("\\%c", c);
		else if (c < 0x20)
			printf("\\u%04x", c);
		else
			putchar(c);
	}
	putchar('"');
}

void print(const std::vector<field> &fields, bool json)
{
	if (!json) {
		for (const field &f : fields)
			printf("%s: %s\n", f.label.c_str(),
			    f.value.empty() ? "-" : f.value.c_str());
		return;
	}
	printf("{");
	const char *sep = "";
	for (const field &f : fields) {
		printf("%s\n  ", sep);
		json_string(f.key);
		printf(": ");
		bool digits = !f.value.empty() &&
		    f.value.find_first_not_of("0123456789") == std::string::npos;
		if (f.number && digits)
			printf("%s", f.value.c_str());
		else if (f.number && f.value.empty())
			printf("null");
		else
			json_string(f.value);
		sep = ",";
	}
	printf("\n}\n");
}

} // namespace

int sdbctl_status(int argc, char **argv)
{
	bool json = argc == 2 && strcmp(argv[1], "--json") == 0;
	if (argc != 1 && !json) {
		fprintf(stderr, "usage: sdbctl status [--json]\n");
		return SDBCTL_EXIT_USAGE;
	}
	std::vector<field> fields;
	tolvard_fields(fields, sdbctl_tolvard_view());
	keel_handle *h = sdbctl_attach("status");
	if (h != nullptr)
		database_fields(fields);
	add(fields, "database", "session database",
	    h != nullptr ? "attached" : "not reachable");
	print(fields, json);
	sdbctl_detach(h);
	return h != nullptr ? 0 : SDBCTL_EXIT_FAIL;
}
