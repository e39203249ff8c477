/*
 * What the daemon shows of itself: one set of "key=value" lines, written
 * to the status file for sdbctl and the lab, and to the trace at SIGPWR.
 *
 * The file is replaced whole (written beside it and renamed), at every
 * change that an operator or a barrier client must see at once and every
 * second from a timer, so a reader sees one consistent state.  A clean
 * exit leaves it with pid 0, and a killed daemon leaves a pid that is
 * gone: either way its heard_at tells the next start as master how far
 * the id word may be behind, so the file outlives the process.
 */
#include "tolvard.h"

#include <platform/chassis.h>
#include <platform/paths.h>
#include <sdb/sdb_id.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using lines = std::vector<std::pair<const char *, std::string>>;

bool stopped;	/* the daemon is going: the file says pid 0 */

std::string num(uint64_t v)
{
	return std::to_string(v);
}

const char *yes_no(int v)
{
	return v ? "yes" : "no";
}

lines collect(void)
{
	const struct tolvard_state &s = tolvard_state;
	int64_t now = static_cast<int64_t>(time(nullptr));
	lines out;
	const char *peer = peer_re_name();
	const mirror_link_stats *ms = s.mirror_inited ? mirror_stats() : nullptr;
	std::string restart = "-";

	if (otimer_is_running(s.restart_timer))
		restart = std::to_string(s.restart_at > now ? s.restart_at - now : 0);
	out.emplace_back("pid", num(stopped ? 0 : static_cast<uint64_t>(getpid())));
	out.emplace_back("updated", num(static_cast<uint64_t>(now)));
	out.emplace_back("role", tolvard_role_name(s.role));
	out.emplace_back("graceful_switchover", s.gres_enabled ? "enabled"
	    : "disabled");
	out.emplace_back("keel", s.keel_handle != nullptr ? "registered"
	    : "not registered");
	out.emplace_back("database", s.db_up && s.db_env != nullptr ? "open"
	    : "closed");
	out.emplace_back("link", s.mirror_up ? "up" : "down");
	out.emplace_back("peer", peer != nullptr && *peer ? peer : "-");
	out.emplace_back("link_since", num(static_cast<uint64_t>(s.link_since)));
	out.emplace_back("last_close", ms != nullptr && ms->last_close[0]
	    ? ms->last_close : "-");
	out.emplace_back("replication_ready", yes_no(tolvard_rep_active()));
	out.emplace_back("restart_in", restart);
	out.emplace_back("session_id", num(sdb_id_get()));
	out.emplace_back("session_id_sent", num(s.session_id_sent));
	out.emplace_back("ids_open", yes_no(tolvard_ids_open()));
	out.emplace_back("id_margin_added", num(s.id_margin_added));
	out.emplace_back("id_margin_now", num(tolvard_id_margin_size(now)));
	out.emplace_back("heard_at", num(static_cast<uint64_t>(
	    s.heard_at > 0 ? s.heard_at : 0)));
	out.emplace_back("heard_as", s.heard_as_master ? "master" : "standby");
	out.emplace_back("records_sent", num(s.records_sent));
	out.emplace_back("records_received", num(s.recv_msgs));
	out.emplace_back("bytes_sent", num(ms != nullptr ? ms->ms_bytes_out : 0));
	out.emplace_back("bytes_received", num(ms != nullptr ? ms->ms_bytes_in
	    : 0));
	out.emplace_back("link_closes", num(ms != nullptr ? ms->ms_closes : 0));
	out.emplace_back("link_resyncs", num(ms != nullptr ? ms->ms_resyncs : 0));
	out.emplace_back("link_throttles", num(ms != nullptr ? ms->ms_throttles
	    : 0));
	out.emplace_back("link_stream_errors", num(ms != nullptr
	    ? ms->ms_stream_errors : 0));
	out.emplace_back("conn_lost", num(s.conn_lost));
	out.emplace_back("barriers_acked", num(s.barriers_acked));
	out.emplace_back("barriers_lost", num(s.barriers_lost));
	out.emplace_back("max_hits", num(s.max_hits));
	return out;
}

/*
 * Once a second: note that the master's bytes still arrive, retry a
 * margin that could not be added, and refresh the file.
 */
void status_tick(otimer_t *timer, void *arg)
{
	(void)timer;
	(void)arg;
	struct tolvard_state &s = tolvard_state;
	/* A master is current only while its standby can follow it. */
	if (s.role == role_master && tolvard_ids_open() && s.mirror_up)
		tolvard_heard();
	else if (s.role == role_standby && s.mirror_up && s.mirror_inited &&
	    s.db_up && s.db_env != nullptr) {
		/* Only an open database stores what arrives. */
		uint64_t in = mirror_stats()->ms_bytes_in;
		if (in != s.bytes_in_seen)
			tolvard_heard();
		s.bytes_in_seen = in;
	}
	tolvard_id_margin_apply();
	tolvard_status_write();
}

} // namespace

/* heard_at of the file a previous process left, 0 when there is none. */
int64_t tolvard_status_previous_heard_at(void)
{
	std::ifstream in(tolvar::path(TOLVARD_STATUS_FILE));
	std::string line;
	while (std::getline(in, line))
		if (line.rfind("heard_at=", 0) == 0)
			return strtoll(line.c_str() + 9, nullptr, 10);
	return 0;
}

/* Whether that heard_at was set while the previous process was master. */
int tolvard_status_previous_heard_as_master(void)
{
	std::ifstream in(tolvar::path(TOLVARD_STATUS_FILE));
	std::string line;
	while (std::getline(in, line))
		if (line.rfind("heard_as=", 0) == 0)
			return line.compare(9, std::string::npos, "master") == 0;
	return 0;
}

void tolvard_status_init(void)
{
	if (tolvard_state.timer_context == nullptr)
		return;
	tolvard_state.link_since = static_cast<int64_t>(time(nullptr));
	tolvard_state.status_timer = otimer_create(tolvard_state.timer_context,
	    nullptr, status_tick, nullptr);
	if (tolvard_state.status_timer == nullptr) {
		tolvard_trace(TRACE_GENERAL, "Failed to create status timer");
		return;
	}
	otimer_periodic(tolvard_state.status_timer, 1, 0, 0);
	tolvard_status_write();
}

void tolvard_status_write(void)
{
	if (tolvard_state.status_timer == nullptr)
		return;	/* not a running daemon: -s, -C or a test */
	std::string path = tolvar::path(TOLVARD_STATUS_FILE);
	std::string tmp = path + ".new";
	FILE *f = fopen(tmp.c_str(), "we");
	if (f == nullptr)
		return;
	for (const auto &[key, value] : collect())
		fprintf(f, "%s=%s\n", key, value.c_str());
	if (fclose(f) != 0 || rename(tmp.c_str(), path.c_str()) != 0)
		unlink(tmp.c_str());
}

void tolvard_status_dump(void)
{
	for (const auto &[key, value] : collect())
		tolvard_trace(TRACE_GENERAL, "%s: %s", key, value.c_str());
}

void tolvard_status_final(void)
{
	if (tolvard_state.status_timer == nullptr)
		return;
	stopped = true;
	tolvard_status_write();
	otimer_delete(tolvard_state.status_timer);
	tolvard_state.status_timer = nullptr;
}
