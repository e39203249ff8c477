/*
 * Attaching to the session database as a client: sdbctl registers with
 * keel like every other process, by polling, and never creates a store.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sdb/keel.h>
#include <sdb/sdb.h>

#include "attach.h"

keel_handle *sdbctl_attach(const char *what)
{
	keel_handle *h = keel_init_handle();
	if (h == nullptr) {
		fprintf(stderr, "sdbctl %s: out of memory\n", what);
		return nullptr;
	}
	keel_set_poll_mode(h);
	int rc = keel_register(h);
	if (rc != 0) {
		/* The status cannot tell "no permission" from "not there":
		 * the open's own errno can. */
		int e = sdb_open_errno();
		if (e == EACCES || e == EPERM)
			fprintf(stderr, "sdbctl %s: session database: %s: only "
			    "root or the configured group may use it (%d)\n",
			    what, strerror(e), rc);
		else
			fprintf(stderr, "sdbctl %s: session database: %s "
			    "(%d)\n", what, sdb_strerror(rc), rc);
		keel_unregister(&h);
		return nullptr;
	}
	return h;
}

void sdbctl_detach(keel_handle *h)
{
	if (h != nullptr)
		keel_unregister(&h);
}
