/*
 * The client's re-registration timer.  The client has exactly one timer,
 * so it keeps one event-library timer of its own rather than a timer tree:
 * timer_context holds the event context it was made on and rereg_timer the
 * live timer's ID, or nothing while it is not armed.
 *
 * rereg_interval is kept as it is meant (5 s); tests shorten it only
 * through TOLVAR_TEST_TIMESCALE.
 */
#include "keel_private.h"

#include <platform/ev.h>
#include <platform/timescale.h>

#include <new>

namespace {

struct keel_timer {
	evContext ctx;
	evTimerID id;
	bool armed;
};

keel_timer *
timer_of(const keel_handle *h)
{
	return static_cast<keel_timer *>(h->rereg_timer);
}

void
keel_interval_otimer(evContext, void *uap, struct timespec, struct timespec)
{
	keel_handle *h = static_cast<keel_handle *>(uap);
	keel_timer *t = timer_of(h);

	/* A fired one-shot is gone from the event library. */
	t->armed = false;
	if (h->fd >= 0)
		return;
	if (keel_reregister(h) != 0 && !keel_timer_running(h)) {
		keel_info(h, "Start a timer to try to reregister with KEEL");
		keel_timer_arm(h);
	}
}

} // namespace

int
keel_timer_create(keel_handle *h)
{
	if (h->rereg_timer != nullptr)
		return 0;
	keel_timer *t = new (std::nothrow) keel_timer{h->event_context, {}, false};
	if (t == nullptr)
		return KEEL_ERR_FATAL;
	h->timer_context = t->ctx.opaque;
	h->rereg_timer = t;
	h->rereg_interval = {5, 0};
	return 0;
}

void
keel_timer_arm(keel_handle *h)
{
	keel_timer *t = timer_of(h);

	if (t == nullptr || t->armed)
		return;
	double secs = static_cast<double>(h->rereg_interval.tv_sec) +
	    static_cast<double>(h->rereg_interval.tv_nsec) / 1e9;
	struct timespec due = __evAddTime(__evNowTime(), tolvar_scaled_secs(secs));
	if (__evSetTimer(t->ctx, keel_interval_otimer, h, due,
	    __evConsTime(0, 0), &t->id) == 0)
		t->armed = true;
	else
		keel_error(h, "Failed to arm the KEEL reregister timer");
}

bool
keel_timer_running(const keel_handle *h)
{
	const keel_timer *t = timer_of(h);
	return t != nullptr && t->armed;
}

void
keel_timer_delete(keel_handle *h)
{
	keel_timer *t = timer_of(h);

	if (t == nullptr)
		return;
	if (t->armed)
		(void)__evClearTimer(t->ctx, t->id);
	delete t;
	h->rereg_timer = nullptr;
	h->timer_context = nullptr;
}
