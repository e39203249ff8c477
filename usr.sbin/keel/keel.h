/*
 * keel, the database manager of a routing engine.
 */
#ifndef KEEL_H
#define KEEL_H

#include <platform/ev.h>

#define KEEL_TRACE_FILE	"/var/log/keel"
#define KEEL_PID_FILE	"/var/run/keel.pid"

/*
 * The registration server on keel's socket.  It is started before the
 * database is open (and answers "not yet" until keel_registration_ready),
 * and stopped before the database is closed.
 */
int	keel_registration_start(evContext ctx);
void	keel_registration_ready(int ready);
void	keel_registration_stop(void);

#endif
