/*
 * The keel client of the session database library, as tolvard uses it:
 * registration, the ISSU answers of the master, the trace callback and the
 * database-ready callback.
 */
#ifndef TOLVARD_KEEL_CLIENT_H
#define TOLVARD_KEEL_CLIENT_H

#include <sdb/keel.h>
#include <sdb/sdb.h>

#endif
