/*
 * Placeholders of the task framework: every call stops the process.
 */
#include "platform/task_dummy.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>

namespace {
[[noreturn]] void absent(const char *func)
{
	fprintf(stderr, "%s: assertion \"0\" failed: no task framework\n", func);
	abort();
}
} // namespace

extern "C" {

sdb_bbe_task_dummy_task_t *sdb_bbe_task_dummy_task_alloc(const char *, int)
{
	absent(__func__);
}

sdb_bbe_task_dummy_timer_t *sdb_bbe_task_dummy_timer_create(
    sdb_bbe_task_dummy_task_t *, const char *, sdb_bbe_task_dummy_handler_t,
    void *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_timer_set_oneshot(sdb_bbe_task_dummy_timer_t *, uint32_t)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_timer_delete(sdb_bbe_task_dummy_timer_t *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_set_socket(sdb_bbe_task_dummy_task_t *, int)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_reset_socket(sdb_bbe_task_dummy_task_t *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_set_connect(sdb_bbe_task_dummy_task_t *,
    sdb_bbe_task_dummy_handler_t)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_set_recv(sdb_bbe_task_dummy_task_t *,
    sdb_bbe_task_dummy_handler_t)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_set_write(sdb_bbe_task_dummy_task_t *,
    sdb_bbe_task_dummy_handler_t)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_socket_reenable_receive(sdb_bbe_task_dummy_task_t *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_socket_reenable_write(sdb_bbe_task_dummy_task_t *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_socket_disable_receive(sdb_bbe_task_dummy_task_t *)
{
	absent(__func__);
}

void sdb_bbe_task_dummy_socket_disable_write(sdb_bbe_task_dummy_task_t *)
{
	absent(__func__);
}

} // extern "C"
