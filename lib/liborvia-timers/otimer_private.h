/*
 * Inside the application timers: the layouts behind the opaque handles of
 * timers/otimer.h.  For the library and its tests only.
 */
#ifndef OTIMER_PRIVATE_H
#define OTIMER_PRIVATE_H

#include <platform/ev.h>
#include <platform/patricia.h>
#include <stdint.h>

#include "htimer.h"
#include "timers/otimer.h"

#define OTIMER_PERIODIC	0x01	/* re-arm from the last expiry */
#define OTIMER_TOUCHED	0x02	/* armed or stopped since the last expiry */
#define OTIMER_DOOMED	0x04	/* delete when the handler returns */
#define OTIMER_FIRING	0x08	/* its handler is running */
#define OTIMER_SPREAD	0x10	/* keep a gap behind the latest sibling */

struct otimer_group;

/*
 * A leaf or an inner node.  The tree node comes first: the tree hands back
 * htimer pointers that are otimer pointers.
 */
struct otimer {
	htimer_t ht;
	void *arg;
	struct timespec interval;	/* as last armed */
	otimer_context_t *context;
	struct otimer_group *group;
	otimer_handler_t handler;
	uint8_t jitter;			/* percent, at most 99 */
	uint8_t flags;
	/*
	 * Inner nodes: timers made under this node and not yet deleted or
	 * moved away.  A node deleted while it has some is only stopped and
	 * marked doomed; it is freed when the last of them leaves, so that no
	 * child is ever left with a freed parent.
	 */
	uint32_t children;
};

/* Timers with one interval and jitter share a parent, found by this key. */
struct otimer_group_key {
	uint32_t secs;
	uint32_t nsecs;
	uint32_t jitter;
};
static_assert(sizeof(struct otimer_group_key) == 12, "group key is 12 bytes");

struct otimer_group {
	patnode node;
	struct otimer_group_key key;
	struct otimer *parent;		/* shared inner node under the root */
	uint32_t refcount;		/* timers that joined */
};

struct otimer_context {
	evContext ev;
	evTimerID ev_timer;
	struct otimer root;		/* inner node, the only one the event library sees */
	bool ev_timer_set;
	bool in_fire;			/* otimer_fire is on the stack */
	struct timespec ev_due;		/* what the event timer was set to */
	patroot *groups;		/* made on first use */
};

#ifdef __cplusplus
extern "C" {
#endif

/* The event-library handler of every context. */
void otimer_fire(evContext ev, void *uap, struct timespec due, struct timespec inter);

#ifdef __cplusplus
}
#endif

#endif
