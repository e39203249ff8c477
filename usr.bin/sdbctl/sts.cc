/*
 * sdbctl sts: the short-term store, read from a copy of its file.  No lock
 * is taken and nothing is written; a store that a writer changes while it
 * is read may look damaged for that moment, so a reported damage is worth
 * a second look before anything is done about it.
 *
 *   status  sizes, entries, sessions, heap use and defragmentations
 *   check   every invariant of the entry table, the slots and the heap
 *   show    one resident session, section by section
 */
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <platform/paths.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_session.h>
#include <sdb/sdb_sts.h>

#include "sdbctl.h"

namespace {

constexpr const char *usage_text =
    "usage: sdbctl sts status [--json]\n"
    "       sdbctl sts check [--json]\n"
    "       sdbctl sts show [--json] SID\n";

bool read_image(std::vector<uint8_t> &img)
{
	std::string path = tolvar::path(SDB_STS_DATA_FILE);
	int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	struct stat st;
	if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
		fprintf(stderr, "sdbctl: sts: %s: %s\n", SDB_STS_DATA_FILE,
		    fd < 0 ? strerror(errno) : "not a regular file");
		if (fd >= 0)
			close(fd);
		return false;
	}
	img.resize((size_t)st.st_size);
	size_t got = 0;
	while (got < img.size()) {
		ssize_t n = pread(fd, img.data() + got, img.size() - got,
		    (off_t)got);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			break;
		got += (size_t)n;
	}
	close(fd);
	img.resize(got);
	return true;
}

std::string json_string(const void *p, size_t len)
{
	std::string out = "\"";
	const auto *s = static_cast<const uint8_t *>(p);
	for (size_t i = 0; i < len; i++) {
		char buf[8];
		if (s[i] == '"' || s[i] == '\\') {
			out += '\\';
			out += (char)s[i];
		} else if (s[i] < 0x20 || s[i] >= 0x7f) {
			snprintf(buf, sizeof buf, "\\u%04x", s[i]);
			out += buf;
		} else {
			out += (char)s[i];
		}
	}
	return out + "\"";
}
std::string json_string(const char *s)
{
	return json_string(s, strlen(s));
}

uint64_t pair64(const uint32_t w[2])
{
	return (uint64_t)w[1] << 32 | w[0];
}

int cmd_status(const std::vector<uint8_t> &img, bool json)
{
	sdb_sts_check_report r;
	sdb_sts_check_image(img.data(), img.size(), &r);
	sdb_sts_heap_ctl c{};
	sdb_sts_geometry g{};
	bool sized = sdb_sts_geometry_for(img.size(), 5 * 4096, &g) == 0 &&
	    g.max_bytes == img.size();
	if (sized)
		memcpy(&c, img.data() + g.heap_ctl_offset, sizeof c);
	uint64_t heap = sized ? g.max_bytes - g.heap_start : 0;
	struct row {
		const char *key, *text;
		uint64_t v;
	} rows[] = {
		{"size", "size", img.size()},
		{"entries", "entries", r.total_entries},
		{"home_slots", "home slots", r.home_count},
		{"sessions", "sessions", r.sessions},
		{"overflow_sessions", "sessions in overflow entries",
		    r.overflow_sessions},
		{"locked_entries", "locked entries", r.locked_entries},
		{"dirty_entries", "dirty entries", r.dirty_entries},
		{"heap_bytes", "heap bytes", heap},
		{"slot_bytes", "heap bytes in slots", r.slot_bytes},
		{"free_bytes", "heap bytes free", r.free_bytes},
		{"free_blocks", "free blocks", r.free_blocks},
		{"defragmentations", "defragmentations", c.defrag_count},
		{"defragmenting_pid", "defragmenting pid", c.defrag_pid},
		{"entry_locks", "entry locks taken", pair64(c.entry_locks)},
		{"entry_lock_waits", "entry locks that waited",
		    pair64(c.entry_lock_waits)},
	};
	if (json) {
		printf("{");
		for (const row &x : rows)
			printf("\"%s\": %" PRIu64 ", ", x.key, x.v);
		printf("\"damaged\": %s}\n", r.problems ? "true" : "false");
	} else {
		for (const row &x : rows)
			printf("%-30s %" PRIu64 "\n", x.text, x.v);
		printf("%-30s %s\n", "state", r.problems ? "damaged" : "valid");
	}
	return 0;
}

int cmd_check(const std::vector<uint8_t> &img, bool json)
{
	sdb_sts_check_report r;
	std::vector<std::string> problems;
	int rc = sdb_sts_check_image_each(img.data(), img.size(), &r,
	    [](void *a, const char *p) {
		auto *v = static_cast<std::vector<std::string> *>(a);
		if (v->size() < 100)
			v->push_back(p);
	}, &problems);
	if (json) {
		printf("{\"valid\": %s, \"problems\": %u, \"first_problem\": %s, "
		    "\"sessions\": %u, \"damage\": [", rc == 0 ? "true" : "false",
		    r.problems, json_string(r.first_problem).c_str(), r.sessions);
		for (size_t i = 0; i < problems.size(); i++)
			printf("%s%s", i ? ", " : "",
			    json_string(problems[i].c_str()).c_str());
		printf("]}\n");
	} else if (rc == 0) {
		printf("valid: %u entries, %u sessions, %u free blocks\n",
		    r.total_entries, r.sessions, r.free_blocks);
	}
	if (rc != 0) {
		fprintf(stderr, "sdbctl: sts: damaged: %u problem%s\n", r.problems,
		    r.problems == 1 ? "" : "s");
		for (const std::string &p : problems)
			fprintf(stderr, "  %s\n", p.c_str());
	}
	return rc == 0 ? 0 : SDBCTL_EXIT_FAIL;
}

/* ------------------------------------------------------------------ */

struct printer {
	bool json;
	bool first = true;

	void open(const char *name)
	{
		if (json)
			printf("%s\"%s\": [", first ? "" : ", ", name);
		first = false;
		inner = true;
	}
	void close()
	{
		if (json)
			printf("]");
	}
	void item(const std::string &text, const std::string &json_obj)
	{
		if (json) {
			printf("%s%s", inner ? "" : ", ", json_obj.c_str());
			inner = false;
		} else {
			printf("  %s\n", text.c_str());
		}
	}
	bool inner = true;
};

int print_attr(void *arg, uint16_t attr, const void *v, uint16_t len)
{
	auto *p = static_cast<printer *>(arg);
	char text[512];
	sdb_attr_format(attr, v, len, text, sizeof text);
	char head[96];
	snprintf(head, sizeof head, "%s (%u), %u bytes: ", sdb_attr_name(attr),
	    attr, len);
	char obj[128];
	snprintf(obj, sizeof obj, "{\"number\": %u, \"name\": \"%s\", "
	    "\"length\": %u, \"value\": ", attr, sdb_attr_name(attr), len);
	p->item(head + std::string(text),
	    obj + json_string(text) + "}");
	return 0;
}

int print_dyn(void *arg, const char *name, uint32_t nlen, uint32_t kind,
    const void *v, uint32_t vlen)
{
	static const char *kinds[] = {"general", "prefix", "ident", "member"};
	auto *p = static_cast<printer *>(arg);
	std::string n(name, nlen);
	std::string val(static_cast<const char *>(v), vlen);
	while (!val.empty() && val.back() == '\0')
		val.pop_back();
	const char *k = kind < 4 ? kinds[kind] : "unknown";
	p->item(std::string(kind == 3 ? "    " : "") + n + " [" + k + "] = " + val,
	    "{\"name\": " + json_string(n.data(), n.size()) + ", \"kind\": \"" +
	    k + "\", \"value\": " + json_string(val.data(), val.size()) + "}");
	return 0;
}

int cmd_show(std::vector<uint8_t> &img, uint64_t sid, bool json)
{
	sdb_sts_check_report r;
	if (sdb_sts_check_image(img.data(), img.size(), &r) != 0) {
		fprintf(stderr, "sdbctl: sts: damaged (%s); run sdbctl sts check\n",
		    r.first_problem);
		return SDBCTL_EXIT_FAIL;
	}
	uint32_t index = UINT32_MAX;
	sdb_sts_entry e;
	for (uint32_t i = 0; i < r.total_entries; i++) {
		memcpy(&e, img.data() + (size_t)i * SDB_STS_ENTRY_SIZE, sizeof e);
		if (e.session_id == sid) {
			index = i;
			break;
		}
	}
	if (index == UINT32_MAX) {
		fprintf(stderr, "sdbctl: sts: session %" PRIu64 " is not in the "
		    "store\n", sid);
		return SDBCTL_EXIT_FAIL;
	}
	/* A private copy: the entry's 76 bytes with its slot behind them. */
	std::vector<uint8_t> copy(SDB_STS_ENTRY_SIZE + e.slot_size);
	memcpy(copy.data(), &e, SDB_STS_ENTRY_SIZE);
	memcpy(copy.data() + SDB_STS_ENTRY_SIZE, img.data() + e.data_start_offset,
	    e.slot_size);
	auto *pe = reinterpret_cast<sdb_sts_entry *>(copy.data());
	uint32_t used = sdb_sts_entry_used_bytes(pe);
	uint64_t dyn = e.dynamic_session, client = e.client_session;
	if (json)
		printf("{\"session_id\": %" PRIu64 ", \"entry\": %u, "
		    "\"slot_size\": %u, \"used_bytes\": %u, "
		    "\"dynamic_session\": %" PRIu64 ", \"client_session\": %"
		    PRIu64 ", \"dirty\": %u, \"lock_pid\": %u, ", sid, index,
		    e.slot_size, used, dyn, client, e.dirty_flags, e.lock_pid);
	else
		printf("session %" PRIu64 " in entry %u%s\n"
		    "slot: %u bytes at %u, %u used\n"
		    "dynamic_session %" PRIu64 ", client_session %" PRIu64
		    ", dirty 0x%02x, lock %u\n", sid, index,
		    index >= r.home_count ? " (overflow)" : "", e.slot_size,
		    e.data_start_offset, used, dyn, client, e.dirty_flags,
		    e.lock_pid);
	printer p{json};
	if (!json)
		printf("attributes:\n");
	p.open("attributes");
	sdb_sts_entry_walk_attrs(pe, print_attr, &p);
	p.close();
	if (!json)
		printf("dynamic:\n");
	p.open("dynamic");
	sdb_sts_entry_walk_dyn(pe, print_dyn, &p);
	p.close();
	const char *auth_names[] = {"auth_request", "auth_response"};
	for (int w = 0; w < 2; w++) {
		if (!json)
			printf("%s:\n", auth_names[w]);
		p.open(auth_names[w]);
		sdb_sts_entry_walk_auth(pe, w, print_attr, &p);
		p.close();
	}
	if (!json)
		printf("application:\n");
	p.open("application");
	for (uint32_t b = 1; b <= SDB_APP_BLOB_MAX; b++) {
		uint32_t len = 0;
		if (sdb_sts_entry_get_app(pe, b, &len, nullptr) != SDB_ERR_NOMEM)
			continue;
		char t[64];
		snprintf(t, sizeof t, "blob %u: %u bytes", b, len);
		p.item(t, "{\"blob\": " + std::to_string(b) + ", \"length\": " +
		    std::to_string(len) + "}");
	}
	p.close();
	uint32_t n = e.service_session_ids_count;
	std::vector<uint64_t> ids(n);
	sdb_sts_entry_get_service_ids(pe, ids.data(), &n);
	if (!json)
		printf("service ids: %u\n", n);
	p.open("service_ids");
	for (uint64_t id : ids)
		p.item(std::to_string(id), std::to_string(id));
	p.close();
	if (json)
		printf("}\n");
	return 0;
}

} // namespace

int sdbctl_sts(int argc, char **argv)
{
	bool json = false;
	std::vector<const char *> args;
	for (int i = 1; i < argc; i++) {
		if (strcmp(argv[i], "--json") == 0)
			json = true;
		else
			args.push_back(argv[i]);
	}
	if (args.empty()) {
		fputs(usage_text, stderr);
		return SDBCTL_EXIT_USAGE;
	}
	std::string cmd = args[0];
	uint64_t sid = 0;
	if (cmd == "show") {
		char *end;
		errno = 0;
		if (args.size() != 2 || args[1][0] < '0' || args[1][0] > '9' ||
		    (sid = strtoull(args[1], &end, 10), *end != '\0') ||
		    errno != 0 || sid == 0) {
			fputs(usage_text, stderr);
			return SDBCTL_EXIT_USAGE;
		}
	} else if ((cmd != "status" && cmd != "check") || args.size() != 1) {
		fputs(usage_text, stderr);
		return SDBCTL_EXIT_USAGE;
	}
	std::vector<uint8_t> img;
	if (!read_image(img))
		return SDBCTL_EXIT_FAIL;
	if (cmd == "status")
		return cmd_status(img, json);
	if (cmd == "check")
		return cmd_check(img, json);
	return cmd_show(img, sid, json);
}
