/*
 * The section encodings.  An encoder walks a slot and writes blocks; a
 * decoder reads blocks from bytes that come from a file or the other
 * engine, so it tests every length before it uses it and never lets a
 * value reach the store's own checks, which stop the process.
 */
#include <algorithm>
#include <cstring>
#include <vector>

#include "sdb/sdb_rep.h"
#include "sts/sts_impl.h"

namespace {

/* ------------------------------------------------------------------ */
/* Writing */

struct writer {
	uint8_t *buf;
	size_t size;
	size_t pos = 0;
	bool full = false;

	void raw(const void *p, size_t n)
	{
		if (full || n > size - pos) {
			full = true;
			return;
		}
		if (n > 0)
			memcpy(buf + pos, p, n);
		pos += n;
	}
	template <class T> void put(T v)
	{
		raw(&v, sizeof v);
	}
	/* A block whose length is patched when it ends. */
	size_t open_block(uint32_t type)
	{
		put<uint32_t>(type);
		size_t at = pos;
		put<uint32_t>(0);
		return at;
	}
	void close_block(size_t at)
	{
		if (full)
			return;
		uint32_t len = (uint32_t)(pos - at - 4);
		memcpy(buf + at, &len, 4);
	}
};

struct attr_sink {
	writer *w;
	bool skip_bits;
};

int put_item(void *arg, uint16_t attr, const void *value, uint16_t len)
{
	auto *s = static_cast<attr_sink *>(arg);
	if (s->skip_bits && attr == CONFIGURATION_BITS)
		return 0;
	s->w->put<uint16_t>(attr);
	s->w->put<uint16_t>(len);
	s->w->raw(value, len);
	return 0;
}

void config_bits_block(writer &w, sdb_sts_entry *e)
{
	uint8_t bits[SDB_ATTR_VALUE_MAX];
	uint32_t len = sizeof bits;
	if (sdb_sts_entry_get_attr(e, CONFIGURATION_BITS, &len, bits) != 0)
		return;
	/* The head says 8 whatever the length; readers take the u16. */
	w.put<uint32_t>(SDB_REP_BLOCK_CONFIG_BITS);
	w.put<uint32_t>(8);
	w.put<uint16_t>((uint16_t)len);
	w.raw(bits, len);
}

void attr_block(writer &w, const sdb_sts_entry *e, uint32_t type)
{
	size_t at = w.open_block(type);
	attr_sink s{&w, true};
	sdb_sts_entry_walk_attrs(e, put_item, &s);
	w.close_block(at);
}

int put_dyn(void *arg, const char *name, uint32_t nlen, uint32_t kind,
    const void *value, uint32_t vlen)
{
	auto *w = static_cast<writer *>(arg);
	w->raw(name, nlen);
	w->put<uint8_t>(0);
	w->put<uint16_t>((uint16_t)kind);
	w->put<uint32_t>(vlen);
	w->raw(value, vlen);
	w->put<uint8_t>(0);
	return 0;
}

int encode(const sdb_sts_entry *ce, int section, writer &w)
{
	auto *e = const_cast<sdb_sts_entry *>(ce);
	w.put<uint16_t>(SDB_REP_RECORD_VERSION);
	switch (section) {
	case SDB_REP_SECTION_CLIENT: {
		uint32_t n = e->service_session_ids_count;
		if (n > 0) {
			std::vector<uint64_t> ids(n);
			sdb_sts_entry_get_service_ids(e, ids.data(), &n);
			w.put<uint32_t>(SDB_REP_BLOCK_SERVICE_IDS);
			w.put<uint32_t>(n * 8 + 2);
			w.put<uint16_t>((uint16_t)n);
			w.raw(ids.data(), n * 8);
		}
		config_bits_block(w, e);
		w.put<uint32_t>(SDB_REP_BLOCK_DYNAMIC_ID);
		w.put<uint32_t>(8);
		w.put<uint64_t>(e->dynamic_session);
		attr_block(w, e, SDB_REP_BLOCK_CLIENT_ATTRS);
		return 0;
	}
	case SDB_REP_SECTION_SERVICE:
		config_bits_block(w, e);
		attr_block(w, e, SDB_REP_BLOCK_SERVICE_ATTRS);
		w.put<uint32_t>(SDB_REP_BLOCK_PARENT_ID);
		w.put<uint32_t>(8);
		w.put<uint64_t>(e->client_session);
		return 0;
	case SDB_REP_SECTION_AUTH_REQ:
	case SDB_REP_SECTION_AUTH_RESP: {
		int which = section == SDB_REP_SECTION_AUTH_REQ ?
		    SDB_STS_AUTH_REQ : SDB_STS_AUTH_RESP;
		if ((which == SDB_STS_AUTH_REQ ? e->auth_req_offset :
		    e->auth_rep_offset) == 0)
			return SDB_ERR_NOT_FOUND;
		size_t at = w.open_block(SDB_REP_BLOCK_AUTH_ATTRS);
		attr_sink s{&w, false};
		sdb_sts_entry_walk_auth(e, which, put_item, &s);
		w.close_block(at);
		return 0;
	}
	case SDB_REP_SECTION_DYNAMIC: {
		if (e->dynamic_offset == 0)
			return SDB_ERR_NOT_FOUND;
		size_t at = w.open_block(SDB_REP_BLOCK_DYNAMIC);
		sdb_sts_entry_walk_dyn(e, put_dyn, &w);
		w.close_block(at);
		return 0;
	}
	default:
		return SDB_ERR_PARAM;
	}
}

/* ------------------------------------------------------------------ */
/* Reading */

struct reader {
	const uint8_t *p;
	size_t len;
	size_t pos = 0;
	bool bad = false;	/* a read ran past the end: the bytes are damaged */

	size_t left() const
	{
		return len - pos;
	}
	/* Outside bytes: a read past the end gives 0 and marks the input bad. */
	template <class T> T get()
	{
		T v{};
		if (sizeof v > left()) {
			bad = true;
			pos = len;
			return v;
		}
		memcpy(&v, p + pos, sizeof v);
		pos += sizeof v;
		return v;
	}
};

/* Items of an attribute list, each tested against the store's limits. */
int read_items(const uint8_t *p, size_t len, sdb_sts_entry *e, bool auth,
    int which)
{
	reader r{p, len};
	while (r.left() > 0) {
		if (r.left() < 4)
			return SDB_ERR_FATAL;
		uint16_t attr = r.get<uint16_t>();
		uint16_t vlen = r.get<uint16_t>();
		if (vlen > r.left())
			return SDB_ERR_FATAL;
		const uint8_t *v = p + r.pos;
		r.pos += vlen;
		int rc;
		if (auth) {
			rc = sdb_sts_entry_append_auth(e, which, attr, v, vlen);
		} else {
			if (attr == 0 || attr > SDB_ATTR_NUM_MAX)
				return SDB_ERR_FATAL;
			rc = sdb_sts_entry_put_attr(e, attr, vlen, v);
		}
		if (rc != 0)
			return rc;
	}
	return 0;
}

int read_dynamic(const uint8_t *p, size_t len, sdb_sts_entry *e)
{
	reader r{p, len};
	uint16_t head = 0, inst = 0;
	std::string head_name;
	while (r.left() > 0) {
		const void *nul = memchr(p + r.pos, 0, r.left());
		if (nul == nullptr)
			return SDB_ERR_FATAL;
		size_t nlen = static_cast<const uint8_t *>(nul) - (p + r.pos);
		std::string name(reinterpret_cast<const char *>(p + r.pos), nlen);
		r.pos += nlen + 1;
		if (nlen == 0 || nlen > SDB_DYN_VAR_NAME_MAX || r.left() < 6)
			return SDB_ERR_FATAL;
		uint16_t kind = r.get<uint16_t>();
		uint32_t vlen = r.get<uint32_t>();
		if (vlen >= r.left() || p[r.pos + vlen] != 0 ||
		    vlen > SDB_ATTR_VALUE_MAX * 8)
			return SDB_ERR_FATAL;
		const uint8_t *v = p + r.pos;
		r.pos += vlen + 1;
		int rc;
		switch (kind) {
		case SDB_DYN_GENERAL:
			rc = vlen == 0 ? SDB_ERR_FATAL :
			    sdb_sts_entry_put_dyn_general(e, name.c_str(), v, vlen);
			break;
		case SDB_DYN_PREFIX:
			rc = vlen == 0 ? SDB_ERR_FATAL :
			    sdb_sts_entry_put_dyn_prefix(e, name.c_str(), v, vlen);
			break;
		case SDB_DYN_IDENT:
			if (vlen == 0) {
				rc = sdb_sts_entry_put_dynamic_attr_common(e, 0,
				    0, name.c_str(), (uint32_t)nlen, nullptr, 0,
				    SDB_DYN_IDENT, SDB_STS_DYN_HEAD, nullptr,
				    &head);
				head_name = name;
				inst = 0;
				break;
			}
			if (head_name != name)
				head = 0;	/* found or made by name */
			rc = sdb_sts_entry_put_dyn_ident(e, head, name.c_str(), v,
			    vlen, &inst);
			break;
		case SDB_DYN_MEMBER:
			rc = inst == 0 || vlen == 0 ? SDB_ERR_FATAL :
			    sdb_sts_entry_put_dyn_member(e, inst, name.c_str(), v,
				vlen);
			break;
		default:
			rc = SDB_ERR_FATAL;
		}
		if (rc != 0)
			return rc;
	}
	return 0;
}

bool bits_match(const uint8_t *bits, uint16_t blen, const uint8_t *filter,
    uint16_t flen)
{
	for (uint16_t i = 0; i < std::min(blen, flen); i++)
		if (bits[i] & filter[i])
			return true;
	return false;
}

/* Bytes read, or a negative status. */
long decode(sdb_sts_entry *e, int section, const uint8_t *p, size_t len,
    const uint8_t *filter, uint16_t flen)
{
	reader r{p, len};
	if (len < 2 || r.get<uint16_t>() != SDB_REP_RECORD_VERSION)
		return SDB_ERR_FATAL;
	std::vector<uint64_t> ids;
	bool have_ids = false, filtered = filter != nullptr && flen > 0;
	bool bits_seen = false;
	while (r.left() >= SDB_REP_BLOCK_HEAD_SIZE) {
		size_t start = r.pos;
		uint32_t type = r.get<uint32_t>();
		uint32_t blen = r.get<uint32_t>();
		if (blen > r.left())
			return SDB_ERR_FATAL;
		bool known;
		switch (section) {
		case SDB_REP_SECTION_CLIENT:
			known = type == SDB_REP_BLOCK_SERVICE_IDS ||
			    type == SDB_REP_BLOCK_CONFIG_BITS ||
			    type == SDB_REP_BLOCK_DYNAMIC_ID ||
			    type == SDB_REP_BLOCK_CLIENT_ATTRS;
			break;
		case SDB_REP_SECTION_SERVICE:
			known = type == SDB_REP_BLOCK_CONFIG_BITS ||
			    type == SDB_REP_BLOCK_SERVICE_ATTRS ||
			    type == SDB_REP_BLOCK_PARENT_ID;
			break;
		case SDB_REP_SECTION_DYNAMIC:
			known = type == SDB_REP_BLOCK_DYNAMIC;
			break;
		default:
			known = type == SDB_REP_BLOCK_AUTH_ATTRS;
		}
		if (!known)
			return (long)start;
		const uint8_t *body = p + r.pos;
		int rc = 0;
		switch (type) {
		case SDB_REP_BLOCK_SERVICE_IDS: {
			if (r.left() < 3)
				return SDB_ERR_FATAL;
			uint16_t n = r.get<uint16_t>();
			if ((size_t)n * 8 > r.left() || n > SDB_REP_SERVICE_IDS_MAX)
				return SDB_ERR_FATAL;
			ids.resize(n);
			if (n > 0)
				memcpy(ids.data(), p + r.pos, (size_t)n * 8);
			have_ids = true;
			r.pos = start + SDB_REP_BLOCK_HEAD_SIZE + blen;
			continue;
		}
		case SDB_REP_BLOCK_CONFIG_BITS: {
			uint16_t n = r.get<uint16_t>();
			if (n > r.left())
				return SDB_ERR_FATAL;
			if (filtered && !bits_match(p + r.pos, n, filter, flen))
				return SDB_ERR_FILTERED;
			bits_seen = true;
			if (n > 0)
				rc = sdb_sts_entry_put_attr(e, CONFIGURATION_BITS,
				    n, p + r.pos);
			r.pos += n;	/* not by the head's 8 */
			break;
		}
		case SDB_REP_BLOCK_DYNAMIC_ID:
		case SDB_REP_BLOCK_PARENT_ID: {
			if (r.left() < 8)
				return SDB_ERR_FATAL;
			uint64_t id = r.get<uint64_t>();
			if (type == SDB_REP_BLOCK_DYNAMIC_ID)
				e->dynamic_session = id;
			else
				e->client_session = id;
			r.pos = start + SDB_REP_BLOCK_HEAD_SIZE + blen;
			break;
		}
		case SDB_REP_BLOCK_CLIENT_ATTRS:
		case SDB_REP_BLOCK_SERVICE_ATTRS:
			rc = read_items(body, blen, e, false, 0);
			r.pos += blen;
			break;
		case SDB_REP_BLOCK_AUTH_ATTRS:
			rc = read_items(body, blen, e, true,
			    section == SDB_REP_SECTION_AUTH_REQ ?
			    SDB_STS_AUTH_REQ : SDB_STS_AUTH_RESP);
			r.pos += blen;
			break;
		case SDB_REP_BLOCK_DYNAMIC:
			rc = read_dynamic(body, blen, e);
			r.pos += blen;
			break;
		}
		if (rc != 0)
			return rc;
		if (r.bad)
			return SDB_ERR_FATAL;
	}
	if (filtered && !bits_seen &&
	    (section == SDB_REP_SECTION_CLIENT ||
	    section == SDB_REP_SECTION_SERVICE))
		return SDB_ERR_FILTERED;
	if (have_ids) {
		uint8_t b[4];
		uint32_t bl = sizeof b;
		bool business = ids.size() > SDB_STS_SERVICE_LIST_SMALL / 8 ||
		    sdb_sts_entry_get_attr(e, SDB_NUM_EXTENSIBLE_SERVICE_SESSIONS,
			&bl, b) == 0;
		int rc = sdb_sts_entry_set_service_ids(e, ids.data(),
		    (uint32_t)ids.size(), business);
		if (rc != 0)
			return rc;
	}
	return (long)r.pos;
}

} // namespace

extern "C" int sdb_rep_encode_section(const sdb_sts_entry *e, int section,
    uint8_t *buf, size_t size, size_t *used)
{
	if (used == nullptr)
		return SDB_ERR_PARAM;
	writer w{buf, size};
	*used = 0;
	int rc = encode(e, section, w);
	if (rc != 0)
		return rc;
	if (w.full)
		return SDB_ERR_BUFFER;
	*used = w.pos;
	return 0;
}

extern "C" int sdb_rep_decode_section(sdb_sts_entry *e, int section,
    const uint8_t *data, size_t len, const uint8_t *filter, uint16_t flen)
{
	if (section < SDB_REP_SECTION_CLIENT || section > SDB_REP_SECTION_DYNAMIC)
		return SDB_ERR_PARAM;
	uint8_t dirty = e->dirty_flags;
	long n = decode(e, section, data, len, filter, flen);
	e->dirty_flags = dirty;
	if (n < 0)
		return (int)n;
	/* A block that this record does not know stopped the read early. */
	return (size_t)n == len ? 0 : SDB_ERR_CORRUPT;
}

extern "C" sdb_sts_entry *sdb_sts_entry_init_private(void *buf, size_t size,
    uint64_t sid)
{
	if (size < SDB_STS_ENTRY_SIZE + 8 ||
	    size - SDB_STS_ENTRY_SIZE > SDB_STS_SLOT_MAX)
		return nullptr;
	auto *e = static_cast<sdb_sts_entry *>(buf);
	memset(buf, 0, SDB_STS_ENTRY_SIZE);
	e->slot_size = (uint32_t)(size - SDB_STS_ENTRY_SIZE) & ~3u;
	sts::entry_reinit(e);
	e->session_id = sid;
	return e;
}
