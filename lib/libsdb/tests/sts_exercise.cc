/*
 * Drives the short-term store for the process tests (tests/system):
 *
 *   sts-exercise random OPS SEED   random puts, removes and growths of
 *                                  sessions, checked against a model
 *   sts-exercise write SID         a session with every kind of value;
 *                                  prints what it wrote
 *   sts-exercise read SID          prints what the store holds for SID
 *
 * The printed form is one line per value: section, key, value in hex.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_sts.h>

namespace {

constexpr uint64_t store_bytes = 250 * 4096;
constexpr uint32_t unit = 5 * 4096;

std::string hex(const void *p, size_t n)
{
	std::string s;
	char b[3];
	for (size_t i = 0; i < n; i++) {
		snprintf(b, sizeof b, "%02x", static_cast<const uint8_t *>(p)[i]);
		s += b;
	}
	return s;
}

using lines = std::vector<std::string>;

lines dump(sdb_sts_entry *e)
{
	lines out;
	sdb_sts_entry_walk_attrs(e, [](void *a, uint16_t n, const void *v,
	    uint16_t l) {
		static_cast<lines *>(a)->push_back("attr " + std::to_string(n) +
		    " " + hex(v, l));
		return 0;
	}, &out);
	sdb_sts_entry_walk_dyn(e, [](void *a, const char *n, uint32_t nl,
	    uint32_t k, const void *v, uint32_t vl) {
		static_cast<lines *>(a)->push_back("dyn " + std::string(n, nl) +
		    "/" + std::to_string(k) + " " + hex(v, vl));
		return 0;
	}, &out);
	for (int w = 0; w < 2; w++) {
		lines part;
		sdb_sts_entry_walk_auth(e, w, [](void *a, uint16_t n,
		    const void *v, uint16_t l) {
			static_cast<lines *>(a)->push_back(std::to_string(n) +
			    " " + hex(v, l));
			return 0;
		}, &part);
		for (auto &l : part)
			out.push_back((w ? "auth-resp " : "auth-req ") + l);
	}
	for (uint32_t b = 0; b <= SDB_APP_BLOB_MAX; b++) {
		std::vector<uint8_t> buf(SDB_APP_BLOB_BYTES);
		uint32_t len = (uint32_t)buf.size();
		if (sdb_sts_entry_get_app(e, b, &len, buf.data()) == 0)
			out.push_back("app " + std::to_string(b) + " " +
			    hex(buf.data(), len));
	}
	uint64_t ids[SDB_STS_SERVICE_LIST_LARGE / 8];
	uint32_t n = SDB_STS_SERVICE_LIST_LARGE / 8;
	sdb_sts_entry_get_service_ids(e, ids, &n);
	for (uint32_t i = 0; i < n; i++)
		out.push_back("service " + std::to_string(ids[i]));
	out.push_back("ids " + std::to_string(e->dynamic_session) + " " +
	    std::to_string(e->client_session));
	return out;
}

int fail(const char *what, uint64_t sid)
{
	fprintf(stderr, "sts-exercise: %s (session %" PRIu64 ")\n", what, sid);
	return 1;
}

/* ------------------------------------------------------------------ */

int write_session(uint64_t sid)
{
	sdb_sts_entry *e = sdb_sts_entry_create(sid);
	if (e == nullptr)
		return fail("no entry", sid);
	uint32_t state = 2, count = 3;
	uint16_t limit = 9;
	uint64_t under = 0x0102030405060708ull;
	uint8_t flag = 1, bits[8] = {0xff, 0, 0x10}, ip[4] = {192, 0, 2, 1};
	uint8_t mac[6] = {0, 0x1b, 0x21, 0x3c, 0x4d, 0x5e};
	uint16_t v6[8] = {0x2001, 0xdb8, 0, 0, 0, 0, 0, 1};
	uint8_t opts[40];
	for (int i = 0; i < 40; i++)
		opts[i] = (uint8_t)(i * 7);
	std::string ifname(60, 'i'), lsys(63, 'l'), ri(127, 'r');
	struct {
		uint16_t attr;
		const void *v;
		uint32_t len;
	} values[] = {
		{SESSION_STATE, &state, 4},
		{SDB_NUM_DYN_PROF_SERVICE_SESSIONS, &count, 4},
		{SDB_MARK_ISSU_CONV_SESSION_MAX_SERV_LIMIT, &limit, 2},
		{UNDERLYING_SESSION_ID, &under, 8},
		{REMOVE_NO_SUBSCRIBER, &flag, 1},
		{CONFIGURATION_BITS, bits, 8},
		{USER_IP_ADDRESS, ip, 4},
		{USER_MAC_ADDRESS, mac, 6},
		{SDB_NEIGHBOR_IPV6_ADDRESS, v6, 16},
		{DHCP_OPTIONS, opts, 40},
		{INTERFACE_NAME, ifname.data(), 60},
		{LOGICAL_SYSTEM_NAME, lsys.data(), 63},
		{ROUTING_INSTANCE_NAME, ri.data(), 127},
		{USER_NAME, "subscriber@example", 18},
	};
	for (auto &v : values)
		if (sdb_sts_entry_put_attr(e, v.attr, v.len, v.v) != 0)
			return fail("put_attr", sid);
	uint16_t inst;
	if (sdb_sts_entry_put_dyn_general(e, "orvia-vlan-id", "100", 3) != 0 ||
	    sdb_sts_entry_put_dyn_prefix(e, "orvia-framed-route-ip-address-prefix",
		"10.0.0.0/8", 10) != 0 ||
	    sdb_sts_entry_put_dyn_ident(e, 0,
		"orvia-subscriber-ipv6-multi-address", "2001:db8::5", 11,
		&inst) != 0 ||
	    sdb_sts_entry_put_dyn_member(e, inst, "orvia-ipv6-address-type",
		"24", 2) != 0)
		return fail("dynamic", sid);
	if (sdb_sts_entry_put_auth(e, SDB_STS_AUTH_REQ, 1, "user", 4) != 0 ||
	    sdb_sts_entry_put_auth(e, SDB_STS_AUTH_RESP, 25, "class", 5) != 0)
		return fail("auth", sid);
	std::vector<uint8_t> blob(5000);
	for (size_t i = 0; i < blob.size(); i++)
		blob[i] = (uint8_t)(i ^ sid);
	if (sdb_sts_entry_put_app(e, 3, blob.data(), 5000) != 0 ||
	    sdb_sts_entry_add_service_id(e, sid + 1, SDB_SERVICE_LI) != 0)
		return fail("app or service", sid);
	e->dynamic_session = sid;
	for (auto &l : dump(e))
		printf("%s\n", l.c_str());
	sdb_sts_entry_release(e);
	return 0;
}

int read_session(uint64_t sid)
{
	sdb_sts_entry *e = sdb_sts_entry_find(sid);
	if (e == nullptr)
		return fail("not in the store", sid);
	for (auto &l : dump(e))
		printf("%s\n", l.c_str());
	sdb_sts_entry_release(e);
	return 0;
}

/* ------------------------------------------------------------------ */

struct model_session {
	std::map<uint16_t, std::string> attrs;
	std::map<uint32_t, std::string> apps;
	std::map<std::string, std::string> dyn;
	std::set<uint64_t> services;
};

constexpr uint16_t attr_pool[] = {USER_NAME, PROFILE_NAME, DHCP_OPTIONS,
    SESSION_STATE, AGENT_CIRCUIT_ID, INTERFACE_SET_NAME, 140, 250};

bool matches(sdb_sts_entry *e, const model_session &m)
{
	std::vector<uint8_t> buf(SDB_APP_BLOB_BYTES + 1);
	for (uint16_t a : attr_pool) {
		uint32_t len = (uint32_t)buf.size();
		int rc = sdb_sts_entry_get_attr(e, a, &len, buf.data());
		auto it = m.attrs.find(a);
		if (it == m.attrs.end() ? rc != SDB_ERR_NOT_FOUND :
		    rc != 0 || std::string((char *)buf.data(), len) != it->second)
			return false;
	}
	for (uint32_t b = 1; b <= 4; b++) {
		uint32_t len = (uint32_t)buf.size();
		int rc = sdb_sts_entry_get_app(e, b, &len, buf.data());
		auto it = m.apps.find(b);
		if (it == m.apps.end() ? rc != SDB_ERR_NOT_FOUND :
		    rc != 0 || std::string((char *)buf.data(), len) != it->second)
			return false;
	}
	for (auto &[k, v] : m.dyn) {
		uint32_t len = (uint32_t)buf.size();
		if (sdb_sts_entry_get_dyn_general(e, k.c_str(), &len,
		    buf.data()) != 0 || std::string((char *)buf.data(), len) != v)
			return false;
	}
	uint64_t ids[14];
	uint32_t n = 14;
	if (sdb_sts_entry_get_service_ids(e, ids, &n) != 0 ||
	    n != m.services.size())
		return false;
	for (uint32_t i = 0; i < n; i++)
		if (!m.services.count(ids[i]))
			return false;
	return true;
}

int random_ops(long ops, unsigned seed)
{
	std::mt19937_64 rng(seed);
	std::map<uint64_t, model_session> model;
	const sdb_sts_geometry *g = sdb_sts_geometry_get();
	uint64_t sids = g->home_count * 2;	/* two sessions per home */
	long refused = 0, grown = 0;
	for (long i = 0; i < ops; i++) {
		uint64_t sid = 1 + rng() % sids;
		auto it = model.find(sid);
		unsigned op = (unsigned)(rng() % 100);
		if (it == model.end()) {
			sdb_sts_entry *e = sdb_sts_entry_create(sid);
			if (e == nullptr) {
				refused++;	/* its home holds the other one */
				continue;
			}
			sdb_sts_entry_release(e);
			it = model.emplace(sid, model_session{}).first;
		}
		sdb_sts_entry *e = sdb_sts_entry_find(sid);
		if (e == nullptr)
			return fail("lost", sid);
		model_session &m = it->second;
		uint32_t before = e->slot_size;
		int rc = 0;
		if (op < 3) {
			sdb_sts_entry_release(e);
			if (sdb_sts_entry_remove(sid) != 0)
				return fail("remove", sid);
			model.erase(it);
			continue;
		} else if (op < 40) {
			uint16_t a = attr_pool[rng() % std::size(attr_pool)];
			std::string v(1 + rng() % (a == DHCP_OPTIONS ? 1500 : 50),
			    (char)('a' + rng() % 26));
			rc = sdb_sts_entry_put_attr(e, a, (uint32_t)v.size(),
			    v.data());
			if (rc == 0)
				m.attrs[a] = v;
		} else if (op < 55) {
			uint16_t a = attr_pool[rng() % std::size(attr_pool)];
			rc = sdb_sts_entry_del_attr(e, a);
			if (rc == SDB_ERR_NOT_FOUND && !m.attrs.count(a))
				rc = 0;
			m.attrs.erase(a);
		} else if (op < 72) {
			uint32_t b = 1 + (uint32_t)(rng() % 4);
			std::string v(1 + rng() % 9000, (char)rng());
			rc = sdb_sts_entry_put_app(e, b, v.data(),
			    (uint32_t)v.size());
			if (rc == 0)
				m.apps[b] = v;
			else if (rc == SDB_ERR_NOMEM)
				rc = 0;	/* the slot's limit: nothing changed */
		} else if (op < 80) {
			uint32_t b = 1 + (uint32_t)(rng() % 4);
			rc = sdb_sts_entry_del_app(e, b);
			if (rc == SDB_ERR_NOT_FOUND && !m.apps.count(b))
				rc = 0;
			m.apps.erase(b);
		} else if (op < 90) {
			std::string k = "var" + std::to_string(rng() % 6);
			std::string v(1 + rng() % 80, (char)('A' + rng() % 26));
			rc = sdb_sts_entry_put_dyn_general(e, k.c_str(), v.data(),
			    (uint32_t)v.size());
			if (rc == 0)
				m.dyn[k] = v;
			else if (rc == SDB_ERR_NOMEM)
				rc = 0;
		} else if (op < 94) {
			std::string k = "var" + std::to_string(rng() % 6);
			rc = sdb_sts_entry_del_dyn(e, k.c_str(), SDB_DYN_GENERAL);
			if (rc == SDB_ERR_NOT_FOUND && !m.dyn.count(k))
				rc = 0;
			m.dyn.erase(k);
		} else if (op < 97 && m.services.size() < 14) {
			uint64_t id = 1000 + rng() % 100000;
			rc = sdb_sts_entry_add_service_id(e, id, SDB_SERVICE_LI);
			if (rc == 0)
				m.services.insert(id);
		} else if (!m.services.empty()) {
			uint64_t id = *m.services.begin();
			rc = sdb_sts_entry_remove_service_id(e, id);
			m.services.erase(id);
		}
		if (rc == SDB_ERR_NOMEM && op < 40)
			rc = 0;
		if (rc != 0) {
			fprintf(stderr, "op %u gave %d\n", op, rc);
			return fail("operation", sid);
		}
		grown += e->slot_size > before;
		if (i % 5000 == 4999) {
			/* The heap is roomy at this size: compact it now and
			 * then, with this entry held, as a full heap would. */
			int released;
			sdb_sts_heap_defragment(e, &released);
		}
		if (i % 97 == 0 && !matches(e, m))
			return fail("differs from the model", sid);
		sdb_sts_entry_release(e);
	}
	for (auto &[sid, m] : model) {
		sdb_sts_entry *e = sdb_sts_entry_find(sid);
		if (e == nullptr || !matches(e, m))
			return fail("differs from the model at the end", sid);
		sdb_sts_entry_release(e);
	}
	printf("ops %ld sessions %zu refused %ld grown %ld\n", ops, model.size(),
	    refused, grown);
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc != 3 && argc != 4) {
		fprintf(stderr, "usage: sts-exercise random OPS SEED | write SID | "
		    "read SID\n");
		return 2;
	}
	if (sdb_sts_init(store_bytes, unit) != 0)
		return fail("cannot open the store", 0);
	std::string cmd = argv[1];
	if (cmd == "random" && argc == 4)
		return random_ops(atol(argv[2]), (unsigned)atoi(argv[3]));
	uint64_t sid = strtoull(argv[2], nullptr, 10);
	if (cmd == "write")
		return write_session(sid);
	if (cmd == "read")
		return read_session(sid);
	return 2;
}
