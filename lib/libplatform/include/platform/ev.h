/*
 * The event library: one single-threaded loop per context, on epoll.
 *
 * File registrations are level-triggered.  Several registrations may share
 * one descriptor as long as their masks are disjoint.  A handler may
 * deselect any registration, its own included, and may close the
 * descriptor; later events of the same turn for a dead registration are
 * dropped.
 *
 * Signals: while the loop dispatches, the asynchronous signals in
 * EV_LOOP_SIGNALS are blocked; they are unblocked atomically only inside
 * epoll_pwait().  A signal therefore either arrives while the loop sleeps
 * (and wakes it) or stays pending until it next sleeps: the flag a handler
 * sets is always seen by the sync handler of the following turn.
 *
 * Time: __evNowTime() reads CLOCK_MONOTONIC unless a test has taken the
 * clock over with ev_clock_set(); then it returns the test's time and the
 * loop never sleeps waiting for a timer.
 */
#ifndef PLATFORM_EV_H
#define PLATFORM_EV_H

#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct { void *opaque; } evContext;
typedef struct { void *opaque; } evFileID;
typedef struct { void *opaque; } evTimerID;
typedef struct { void *opaque; } evConnID;

#define EV_READ   1
#define EV_WRITE  2
#define EV_EXCEPT 4

typedef void (*evFileFunc)(evContext ctx, void *uap, int fd, int eventmask);
typedef void (*evTimerFunc)(evContext ctx, void *uap, struct timespec due,
                            struct timespec inter);
/*
 * Listen and connect completions.  For a failed connect fd is -1 and errno
 * holds the reason; the caller's descriptor is never closed by the library.
 * A connect that fails at once (a unix socket with no listener, sometimes a
 * refused TCP connect) makes __evConnect() itself return -1 with errno, and
 * the handler is not called.
 *
 * A listen handler called with fd -1 was refused a connection for want of
 * descriptors or memory (errno: EMFILE, ENFILE, ENOBUFS or ENOMEM).  The
 * library has then closed that connection at once, with a descriptor it
 * keeps spare for this, or stopped watching the listener for a moment: a
 * full descriptor table never makes the loop spin.
 *
 * IDs are serial numbers, never reused: an ID whose registration is gone
 * (a fired one-shot timer, a completed connect, a deselected descriptor)
 * is refused with ENOENT.
 */
typedef void (*evConnFunc)(evContext ctx, void *uap, int fd,
                           const void *la, int lalen,
                           const void *ra, int ralen);
typedef void (*evSyncFunc)(evContext ctx, void *uap);
typedef void (*evDeferFunc)(evContext ctx, void *uap);

int  __evCreate(evContext *ctx);
int  __evDestroy(evContext ctx);
/* Runs until __evBreak(); calls the sync handler once per turn. */
int  __evMainLoopSync(evContext ctx);
/* One turn: wait at most timeout_ms (-1 for ever), dispatch, sync handler. */
int  __evLoopOnce(evContext ctx, int timeout_ms);
void __evBreak(evContext ctx);
int  __evSetSyncHandler(evContext ctx, evSyncFunc func, void *uap);

int  __evSelectFD(evContext ctx, int fd, int eventmask, evFileFunc func,
                  void *uap, evFileID *id);
int  __evDeselectFD(evContext ctx, evFileID id);

int  __evListen(evContext ctx, int fd, int maxconn, evConnFunc func,
                void *uap, evConnID *id);
int  __evConnect(evContext ctx, int fd, const void *ra, int ralen,
                 evConnFunc func, void *uap, evConnID *id);
int  __evCancelConn(evContext ctx, evConnID id);

/* Run func once at the start of the next turn. */
int  __evDefer(evContext ctx, evDeferFunc func, void *uap);

/* due is absolute (on __evNowTime's clock); a due time in the past fires
 * on the next turn.  An interval of {0,0} makes a one-shot. */
int  __evSetTimer(evContext ctx, evTimerFunc func, void *uap,
                  struct timespec due, struct timespec inter, evTimerID *id);
int  __evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap,
                    struct timespec due, struct timespec inter);
int  __evClearTimer(evContext ctx, evTimerID id);

struct timespec __evNowTime(void);
struct timespec __evAddTime(struct timespec a, struct timespec b);
struct timespec __evSubTime(struct timespec a, struct timespec b);
int  __evCmpTime(struct timespec a, struct timespec b);
struct timespec __evConsTime(time_t sec, long nsec);

/* Test clock: take the clock over (non-NULL) or give it back (NULL). */
void ev_clock_set(const struct timespec *now);
void ev_clock_advance(struct timespec by);

/* Signals that the loop keeps blocked outside its wait. */
void ev_loop_signals(sigset_t *set);

#ifdef __cplusplus
}
#endif

#endif
