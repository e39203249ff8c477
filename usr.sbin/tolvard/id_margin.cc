/*
 * The id margin: never the same session id twice across a change of
 * master.
 *
 * A standby's id word follows the master's only as fast as the master's
 * poll (every 100 ms) and the link carry it.  When the master dies, the
 * ids it handed out since its last SESSION ID message never reached us,
 * and a standby whose link was down, or a process that comes back into
 * the master role after a restart, may be much further behind.  So at
 * every change to master, in place or at a start as master, the daemon
 * raises the id word by a margin before it says that ids may be handed
 * out (ids_open in the status file):
 *
 *	margin = id-margin + id-rate x (seconds since heard_at)
 *
 * heard_at is the last second at which this engine knew the newest id:
 * while it is master, every second; while it is standby, whenever the
 * master's id or any other bytes of the master arrive (keepalives
 * included: the link keeps order, so everything the master queued before
 * them has arrived too).  A start as master takes heard_at from the
 * status file that the previous process left; without one it is unknown
 * and id-margin-unknown is added instead of the time term.
 *
 * id-margin covers what one busy master hands out between two polls and
 * while its last message is on the wire.  Ids may skip; they only grow.
 *
 * An engine that comes back to mastership after it lost it (heard_at was
 * last set while it was master) does not know whether the other engine
 * was master meanwhile.  If it was, that engine raised its own word by
 * its margin, counted from the last bytes it had from us, which may be up
 * to a keepalive period older than our heard_at, and then handed out ids
 * at up to id-rate.  Its word is thus at most our word plus id-margin
 * plus id-rate x (seconds since heard_at + that keepalive period), and we
 * must land above it, not on it:
 *
 *	margin = 2 x id-margin + id-rate x (seconds since heard_at
 *	    + TOLVARD_PEER_LAG_SECS)
 *
 * The same holds for a master whose standby was not in step: a master
 * counts itself as current only while its link is up.
 */
#include "tolvard.h"

#include <sdb/sdb_id.h>
#include <platform/dax.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

int64_t wall_now(void)
{
	return static_cast<int64_t>(time(nullptr));
}

/* a + b, or UINT64_MAX when it does not fit. */
uint64_t add_sat(uint64_t a, uint64_t b)
{
	return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

uint64_t mul_sat(uint64_t a, uint64_t b)
{
	return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

struct setting {
	const char *name;
	uint64_t tolvard_state::*field;
	uint64_t dflt;
};

constexpr setting settings[] = {
	{"session-id-rate", &tolvard_state::id_rate, TOLVARD_ID_RATE},
	{"session-id-margin", &tolvard_state::id_margin, TOLVARD_ID_MARGIN},
	{"session-id-margin-unknown", &tolvard_state::id_margin_unknown,
	    TOLVARD_ID_MARGIN_UNKNOWN},
};

/* A positive decimal below 2^62, so that a margin never wraps the space. */
bool parse_count(const char *s, uint64_t *out)
{
	char *end = nullptr;
	if (s[0] < '0' || s[0] > '9')
		return false;
	errno = 0;
	unsigned long long v = strtoull(s, &end, 10);
	if (errno != 0 || *end != '\0' || v == 0 || v >= (1ULL << 62))
		return false;
	*out = v;
	return true;
}

} // namespace

/*
 * Read the settings from the open configuration database.  A bad value
 * keeps the default and counts as an error; returns the number of errors.
 */
int tolvard_id_margin_config(int check)
{
	int errors = 0;

	for (const setting &s : settings) {
		const char *path[] = {"system", "processes", "tolvard", s.name,
		    nullptr};
		char value[64], errmsg[256];
		uint64_t v = s.dflt;
		int rc = ddl_access_value(path, value, sizeof(value), errmsg,
		    sizeof(errmsg));
		if (rc == 1 && !parse_count(value, &v)) {
			tolvard_trace(TRACE_GENERAL, "Bad value \"%s\" of %s, "
			    "keeping %llu", value, s.name,
			    (unsigned long long)s.dflt);
			if (check)
				fprintf(stderr, "tolvard: bad value \"%s\" of "
				    "%s: a whole number from 1 to 2^62-1\n",
				    value, s.name);
			v = s.dflt;
			errors++;
		}
		tolvard_state.*s.field = v;
	}
	return errors;
}

/* At a start: the role is known, the database not yet open. */
void tolvard_id_margin_start(int64_t previous_heard_at)
{
	tolvard_state.heard_at = previous_heard_at;
	tolvard_state.heard_as_master =
	    (uint8_t)tolvard_status_previous_heard_as_master();
	if (tolvard_state.role == role_master)
		tolvard_state.id_margin_due = 1;
}

uint64_t tolvard_id_margin_size(int64_t now)
{
	uint64_t margin = tolvard_state.id_margin;

	if (tolvard_state.heard_at <= 0)
		return add_sat(margin, tolvard_state.id_margin_unknown);
	/* A clock set back counts as no time at all; the margin stays. */
	int64_t secs = now > tolvard_state.heard_at
	    ? now - tolvard_state.heard_at : 0;
	if (tolvard_state.heard_as_master) {
		/* The other engine may have been master since: land above
		 * its raised word and what it handed out after. */
		margin = add_sat(margin, tolvard_state.id_margin);
		secs += TOLVARD_PEER_LAG_SECS;
	}
	return add_sat(margin, mul_sat(tolvard_state.id_rate,
	    static_cast<uint64_t>(secs)));
}

/*
 * Raise the id word by the margin, once per change to master.  Called
 * when the database comes as master; a failure leaves the margin due and
 * ids closed, and the status tick tries again.
 */
void tolvard_id_margin_apply(void)
{
	if (!tolvard_state.id_margin_due || tolvard_state.role != role_master ||
	    !tolvard_state.db_up || tolvard_state.db_env == nullptr)
		return;
	uint64_t margin = tolvard_id_margin_size(wall_now());
	uint64_t before = sdb_id_get();
	/* Past the end of the space the generator would wrap to 1: stop at
	 * its last id instead, and say so. */
	uint64_t target = margin > SDB_ID_MAX - before ? SDB_ID_MAX
	    : before + margin;
	if (sdb_id_raise(target) != 0) {
		tolvard_trace(TRACE_DB, "Failed to raise session id by %llu",
		    (unsigned long long)margin);
		return;
	}
	if (target == SDB_ID_MAX)
		tolvard_trace(TRACE_DB, "Session id space exhausted");
	tolvard_state.id_margin_due = 0;
	tolvard_state.id_margin_added = margin;
	tolvard_state.heard_at = wall_now();
	tolvard_state.heard_as_master = 1;
	tolvard_trace(TRACE_DB, "Session id raised from %llu by %llu to %llu "
	    "as new master", (unsigned long long)before,
	    (unsigned long long)margin, (unsigned long long)sdb_id_get());
	tolvard_status_write();
}

/* Master with the database open and the margin added: ids may go out. */
int tolvard_ids_open(void)
{
	return tolvard_state.role == role_master && tolvard_state.db_up &&
	    tolvard_state.db_env != nullptr && !tolvard_state.id_margin_due;
}

void tolvard_heard(void)
{
	tolvard_state.heard_at = wall_now();
	tolvard_state.heard_as_master = tolvard_state.role == role_master;
}
