/*
 * The task framework that some daemons are built around does not exist
 * on this platform.  These are the calls its bindings make; each one is a
 * fatal assertion, so that a task binding links but can never run.
 */
#ifndef PLATFORM_TASK_DUMMY_H
#define PLATFORM_TASK_DUMMY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct sdb_bbe_task_dummy_task sdb_bbe_task_dummy_task_t;
typedef struct sdb_bbe_task_dummy_timer sdb_bbe_task_dummy_timer_t;
typedef void (*sdb_bbe_task_dummy_handler_t)(void *arg);

sdb_bbe_task_dummy_task_t *sdb_bbe_task_dummy_task_alloc(const char *name,
    int priority);
sdb_bbe_task_dummy_timer_t *sdb_bbe_task_dummy_timer_create(
    sdb_bbe_task_dummy_task_t *task, const char *name,
    sdb_bbe_task_dummy_handler_t handler, void *arg);
void sdb_bbe_task_dummy_timer_set_oneshot(sdb_bbe_task_dummy_timer_t *timer,
    uint32_t seconds);
void sdb_bbe_task_dummy_timer_delete(sdb_bbe_task_dummy_timer_t *timer);
void sdb_bbe_task_dummy_set_socket(sdb_bbe_task_dummy_task_t *task, int fd);
void sdb_bbe_task_dummy_reset_socket(sdb_bbe_task_dummy_task_t *task);
void sdb_bbe_task_dummy_set_connect(sdb_bbe_task_dummy_task_t *task,
    sdb_bbe_task_dummy_handler_t handler);
void sdb_bbe_task_dummy_set_recv(sdb_bbe_task_dummy_task_t *task,
    sdb_bbe_task_dummy_handler_t handler);
void sdb_bbe_task_dummy_set_write(sdb_bbe_task_dummy_task_t *task,
    sdb_bbe_task_dummy_handler_t handler);
void sdb_bbe_task_dummy_socket_reenable_receive(sdb_bbe_task_dummy_task_t *task);
void sdb_bbe_task_dummy_socket_reenable_write(sdb_bbe_task_dummy_task_t *task);
void sdb_bbe_task_dummy_socket_disable_receive(sdb_bbe_task_dummy_task_t *task);
void sdb_bbe_task_dummy_socket_disable_write(sdb_bbe_task_dummy_task_t *task);

#ifdef __cplusplus
}
#endif

#endif
