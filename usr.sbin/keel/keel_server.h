/*
 * keel's side of "/var/run/keel_server_communication": it answers the
 * registrations of the processes that use the session database, tells
 * them of mastership changes and ISSU phases, and notices when one of them
 * dies with its socket.
 *
 * A registration is answered with success, or with the status that keeps
 * the client out, checked in this order:
 *
 *   -17  the platform has no session database ("session_db = 0" in the
 *        platform file)
 *   -36  keel is purging the stores
 *   -19  keel has not finished opening the database itself
 *   -11  the secondary tables are being rebuilt
 *   -31  the client's view of mastership is not keel's
 *
 * Every message from a client is checked before it is used.  Anything
 * malformed (an unknown type, a registration with bits, lengths or states
 * out of range, a message before the registration) is traced, logged as
 * KEEL_CLIENT_MESSAGE_INVALID, and the connection is closed; nothing else
 * changes.
 *
 * All of it runs on keel's event loop, in its one thread.
 */
#ifndef KEEL_SERVER_H
#define KEEL_SERVER_H

#include <platform/ev.h>

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*keel_server_log_fn)(void *ctx, int priority, const char *fmt,
    va_list ap);

/*
 * Listen on the socket (a stale socket file is replaced) and, when
 * TOLVAR_KEEL_TEST_CONTROL=1 is in the environment, on the test control
 * socket (keel_server_control.h).  0, or -1 with errno.
 */
int	keel_server_init(evContext ctx, keel_server_log_fn log, void *log_ctx);
/* Close every connection and both listeners, and remove the socket files. */
void	keel_server_shutdown(void);

/* keel's own open has finished (1), or the stores are not open (0).
 * Until then every registration is answered -19. */
void	keel_server_set_ready(int ready);
/* The secondary tables are being rebuilt: registrations get -11. */
void	keel_server_set_recovering(int on);
/* The stores are being purged: registrations get -36. */
void	keel_server_set_purging(int on);

/*
 * Read this engine's role again (on SIGHUP, after the platform file
 * changed).  When it changed, every registered client gets a mastership
 * message.  Returns 1 when the role changed.
 */
int	keel_server_mastership_check(void);
int	keel_server_is_master(void);

/* Relay a chassis ISSU phase to every registered client. */
void	keel_server_chassis_issu(uint32_t msg);

/* Registered clients, for statistics and tests. */
int	keel_server_client_count(void);

#ifdef __cplusplus
}
#endif

#endif
