/*
 * The two bindings of the mapped queue: the event library (mm_ev) and
 * the task framework (mm_task), which is absent here and whose calls stop
 * the process.
 */
#include "mmf/mm_ev.h"

#include "mmf_impl.h"
#include "platform/task_dummy.h"

#include <cstdlib>
#include <new>

namespace {

struct ev_timer_closure {
	struct mm_ev_ctx *ctx;
	uint32_t index;
};

struct mm_ev_ctx {
	mm_ctx_t c;
	evContext ev;
	evTimerID timer[MM_MAX_TIMERS];
	bool timer_set[MM_MAX_TIMERS];
	ev_timer_closure closure[MM_MAX_TIMERS];
	evFileID read_id;
	bool reading;
	uint32_t timers_set, timers_failed, timers_cleared;
};

struct mm_task_ctx {
	mm_ctx_t c;
	sdb_bbe_task_dummy_task_t *task;
	sdb_bbe_task_dummy_timer_t *timer[MM_MAX_TIMERS];
};

mm_task_ctx *the_task_ctx;

mm_ev_ctx *ev_of(void *ctx)
{
	auto *e = static_cast<mm_ev_ctx *>(ctx);
	MMF_ASSERT(e != nullptr && e->c.type == MM_CTX_EV);
	return e;
}

void ev_dispatch_read(evContext, void *uap, int, int)
{
	auto *e = static_cast<mm_ev_ctx *>(uap);
	if (e->c.read_handler != nullptr)
		e->c.read_handler(e);
}

void ev_dispatch_timer(evContext, void *uap, struct timespec, struct timespec)
{
	auto *cl = static_cast<ev_timer_closure *>(uap);
	mm_handler_t h = cl->ctx->c.timer_handler[cl->index];
	if (h != nullptr)
		h(cl->ctx);
}

bool ev_sock_set(void *ctx, int fd)
{
	ev_of(ctx)->c.fd = fd;
	return true;
}

bool ev_sock_disable_read(void *ctx)
{
	mm_ev_ctx *e = ev_of(ctx);
	e->c.read_handler = nullptr;
	if (e->reading)
		__evDeselectFD(e->ev, e->read_id);
	e->reading = false;
	e->read_id = {};
	return true;
}

bool ev_sock_reset(void *ctx)
{
	ev_sock_disable_read(ctx);
	ev_of(ctx)->c.fd = -1;
	return true;
}

bool ev_sock_enable_read(void *ctx, mm_handler_t handler)
{
	mm_ev_ctx *e = ev_of(ctx);
	e->c.read_handler = handler;
	if (e->reading)
		return true;
	if (__evSelectFD(e->ev, e->c.fd, EV_READ, ev_dispatch_read, e,
	    &e->read_id) != 0)
		return false;
	e->reading = true;
	return true;
}

bool ev_timer_destroy(void *ctx, uint32_t index)
{
	mm_ev_ctx *e = ev_of(ctx);
	MMF_ASSERT(index < MM_MAX_TIMERS);
	if (e->timer_set[index]) {
		__evClearTimer(e->ev, e->timer[index]);
		e->timer_set[index] = false;
		e->timers_cleared++;
	}
	return true;
}

bool ev_timer_create(void *ctx, uint32_t ms, mm_handler_t handler,
    uint32_t index)
{
	mm_ev_ctx *e = ev_of(ctx);
	MMF_ASSERT(index < MM_MAX_TIMERS);
	e->c.timer_handler[index] = handler;
	ev_timer_destroy(ctx, index);
	/* Below a second exactly; from a second on, whole seconds. */
	struct timespec every = ms < 1000 ?
	    __evConsTime(0, static_cast<long>(ms) * 1000000L) :
	    __evConsTime(static_cast<time_t>(ms / 1000), 0);
	e->closure[index] = {e, index};
	if (__evSetTimer(e->ev, ev_dispatch_timer, &e->closure[index],
	    __evAddTime(__evNowTime(), every), every, &e->timer[index]) != 0) {
		e->timers_failed++;
		return false;
	}
	e->timer_set[index] = true;
	e->timers_set++;
	return true;
}

const mm_ops_t ev_ops = {ev_sock_set, ev_sock_reset, ev_sock_enable_read,
    ev_sock_disable_read, ev_timer_create, ev_timer_destroy};

mm_task_ctx *task_of(void *ctx)
{
	MMF_ASSERT(ctx == the_task_ctx && "task_ctx == mm_task_ctx");
	return the_task_ctx;
}

void task_dispatch_read(void *arg)
{
	mm_task_ctx *t = task_of(arg);
	if (t->c.read_handler != nullptr)
		t->c.read_handler(t);
	else
		sdb_bbe_task_dummy_socket_disable_receive(t->task);
}

bool task_sock_set(void *ctx, int fd)
{
	mm_task_ctx *t = task_of(ctx);
	t->c.fd = fd;
	sdb_bbe_task_dummy_set_recv(t->task, task_dispatch_read);
	sdb_bbe_task_dummy_set_socket(t->task, fd);
	return true;
}

bool task_sock_reset(void *ctx)
{
	mm_task_ctx *t = task_of(ctx);
	sdb_bbe_task_dummy_reset_socket(t->task);
	t->c.fd = -1;
	return true;
}

bool task_sock_enable_read(void *ctx, mm_handler_t handler)
{
	mm_task_ctx *t = task_of(ctx);
	t->c.read_handler = handler;
	sdb_bbe_task_dummy_socket_reenable_receive(t->task);
	return true;
}

bool task_sock_disable_read(void *ctx)
{
	mm_task_ctx *t = task_of(ctx);
	sdb_bbe_task_dummy_socket_disable_receive(t->task);
	t->c.read_handler = nullptr;
	return true;
}

void task_dispatch_timer(void *arg)
{
	auto *idx = static_cast<uint32_t *>(arg);
	mm_task_ctx *t = the_task_ctx;
	if (t != nullptr && t->c.timer_handler[*idx] != nullptr)
		t->c.timer_handler[*idx](t);
}

uint32_t task_timer_index[MM_MAX_TIMERS] = {0, 1};

bool task_timer_create(void *ctx, uint32_t ms, mm_handler_t handler,
    uint32_t index)
{
	mm_task_ctx *t = task_of(ctx);
	MMF_ASSERT(index < MM_MAX_TIMERS);
	if (t->timer[index] != nullptr)
		return false;
	t->c.timer_handler[index] = handler;
	t->timer[index] = sdb_bbe_task_dummy_timer_create(t->task,
	    "mm task timer cb", task_dispatch_timer, &task_timer_index[index]);
	uint32_t secs = ms < 1000 ? 1 : ms / 1000;
	sdb_bbe_task_dummy_timer_set_oneshot(t->timer[index], secs);
	return true;
}

bool task_timer_destroy(void *ctx, uint32_t index)
{
	mm_task_ctx *t = task_of(ctx);
	MMF_ASSERT(index < MM_MAX_TIMERS);
	if (t->timer[index] != nullptr) {
		sdb_bbe_task_dummy_timer_delete(t->timer[index]);
		t->timer[index] = nullptr;
	}
	return true;
}

const mm_ops_t task_ops = {task_sock_set, task_sock_reset,
    task_sock_enable_read, task_sock_disable_read, task_timer_create,
    task_timer_destroy};

} // namespace

extern "C" mm_ctx_t *mm_ev_create(evContext *ev_ctx, void *queue)
{
	MMF_ASSERT(ev_ctx != nullptr);
	auto *e = new (std::nothrow) mm_ev_ctx{};
	MMF_ASSERT(e != nullptr);
	e->c.type = MM_CTX_EV;
	e->c.ops = &ev_ops;
	e->c.queue = queue;
	e->c.fd = -1;
	e->ev = *ev_ctx;
	return &e->c;
}

extern "C" mm_ctx_t *mm_task_create(void)
{
	MMF_ASSERT(the_task_ctx == nullptr);
	auto *t = new (std::nothrow) mm_task_ctx{};
	MMF_ASSERT(t != nullptr);
	t->c.type = MM_CTX_TASK;
	t->c.ops = &task_ops;
	t->c.fd = -1;
	the_task_ctx = t;
	t->task = sdb_bbe_task_dummy_task_alloc("mm", 40);
	return &t->c;
}

extern "C" void mm_ctx_destroy(mm_ctx_t *ctx)
{
	if (ctx == nullptr)
		return;
	for (uint32_t i = 0; i < MM_MAX_TIMERS; i++)
		ctx->ops->conn_timer_destroy(ctx, i);
	ctx->ops->sock_reset(ctx);
	if (ctx->type == MM_CTX_EV) {
		delete reinterpret_cast<mm_ev_ctx *>(ctx);
	} else {
		the_task_ctx = nullptr;
		delete reinterpret_cast<mm_task_ctx *>(ctx);
	}
}

extern "C" void mm_ev_timer_counts(mm_ctx_t *ctx, uint32_t out[3])
{
	mm_ev_ctx *e = ev_of(ctx);
	out[0] = e->timers_set;
	out[1] = e->timers_failed;
	out[2] = e->timers_cleared;
}
