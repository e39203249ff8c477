/*
 * The keel client of the session database library, as tolvard uses it:
 * registration, the ISSU answers of the master, the trace callback and the
 * database-ready callback.  Until the client joins the library,
 * keel_pending.cc stands in for the calls made here.
 */
#ifndef TOLVARD_KEEL_CLIENT_H
#define TOLVARD_KEEL_CLIENT_H

#include <sdb/keel.h>
#include <sdb/sdb.h>

#endif
