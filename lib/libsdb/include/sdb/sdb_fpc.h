/*
 * Line card admission: the per-FPC state that the resource monitor writes
 * into the main segment, the throttle byte, the class-of-service
 * scheduler table and the global refusal counters, and the checks that a
 * login or a service request makes before it goes on.
 */
#ifndef SDB_SDB_FPC_H
#define SDB_SDB_FPC_H

#include <stddef.h>
#include <stdint.h>

#include "sdb/sdb.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_FPC_SLOTS		256
#define SDB_FPC_LEVEL_NORMAL	10
#define SDB_SCHED_ROWS		255

/* Reasons of a refusal. */
#define SDB_FPC_REASON_HEAP	1	/* heap or scheduler short */
#define SDB_FPC_REASON_SHARED	2	/* shared memory short */
#define SDB_FPC_REASON_CARD	7	/* line card refused, no reason given */

/* One line card, 40 bytes; the monitor's values are its own business. */
struct sdb_fpc_entry {
	uint8_t login_ok;
	uint8_t service_ok;
	uint8_t pad0[2];
	uint32_t logins_refused;
	uint32_t services_refused;
	uint32_t monitor12;
	uint32_t monitor16;
	uint32_t monitor_client_counter;
	uint32_t monitor24;
	uint8_t fpc_level;
	uint8_t refuse_reason;
	uint8_t sched_update_wanted;
	uint8_t monitor31;
	uint8_t monitor32;
	uint8_t pad1;
	uint16_t monitor34;
	uint8_t monitor36;
	uint8_t reserved[3];
};

/* The global refusal counters. */
struct sdb_fpc_counters {
	uint32_t logins_refused_heap;
	uint32_t logins_refused_shared;
	uint32_t services_refused_heap;
	uint32_t services_refused_shared;
};

/* One row of the scheduler table, all 255 at creation. */
struct sdb_sched_row {
	uint8_t first;
	uint8_t group[3][4];
};

/* Pointers into the main segment; null when it is not attached. */
struct sdb_fpc_entry *sdb_fpc_table(void);
uint8_t *sdb_fpc_throttle(void);
struct sdb_sched_row *sdb_sched_table(void);
struct sdb_fpc_counters *sdb_fpc_counters_ptr(void);
/* Gives a fresh segment its initial states (keel, at open). */
void sdb_fpc_table_init_if_new(void);

/* 1 admit, 0 refuse; reason out on a refusal. */
int sdb_fpc_login_check(uint32_t fpc, const char *name, uint8_t pfe,
    uint32_t *reason);
int sdb_fpc_service_check(uint32_t fpc, uint32_t *reason);
/* The monitor's new states, SDB_FPC_SLOTS entries. */
int sdb_fpc_table_update(const struct sdb_fpc_entry *entries);
/* One field of one slot, as the monitor writes it; -6 on a bad name. */
int sdb_fpc_field_set(uint32_t fpc, const char *field, uint32_t value);
int sdb_check_cos_queue_usage(const char *name);
int sdb_sched_mapping_update_shm(uint16_t fpc, const char *name, uint8_t pfe);
int sdb_sched_allowed_update(uint16_t fpc, uint8_t pfe, uint8_t sched,
    uint8_t allowed);
/* Maintenance of the mapped records. */
void sdb_sched_map_mark_all(void);
void sdb_sched_map_clear_marked(void);
void sdb_sched_map_clear_all(void);
/* The scheduler table's writer: code 1 sets the first byte, 5, 6 and 7
 * the column of the first, second or third group. */
int sdb_sched_table_write(uint32_t row, uint32_t column, uint32_t code,
    uint8_t value);
int sdb_sched_table_reset(uint32_t row);

/* The memory tests. */
int check_free_shared(void);
int sdb_mem_test(void);
struct sdb_mem_test_state {
	uint8_t heap_ok, shared_ok, mem_ok;
	uint64_t requests, requests_at_test, tests;
};
void sdb_mem_test_state_get(struct sdb_mem_test_state *out);
/* This process's login requests per line card. */
uint64_t sdb_fpc_requests(uint32_t fpc);

#ifdef __cplusplus
}

static_assert(offsetof(sdb_fpc_entry, logins_refused) == 4);
static_assert(offsetof(sdb_fpc_entry, services_refused) == 8);
static_assert(offsetof(sdb_fpc_entry, monitor12) == 12);
static_assert(offsetof(sdb_fpc_entry, monitor16) == 16);
static_assert(offsetof(sdb_fpc_entry, monitor_client_counter) == 20);
static_assert(offsetof(sdb_fpc_entry, monitor24) == 24);
static_assert(offsetof(sdb_fpc_entry, fpc_level) == 28);
static_assert(offsetof(sdb_fpc_entry, refuse_reason) == 29);
static_assert(offsetof(sdb_fpc_entry, sched_update_wanted) == 30);
static_assert(offsetof(sdb_fpc_entry, monitor31) == 31);
static_assert(offsetof(sdb_fpc_entry, monitor32) == 32);
static_assert(offsetof(sdb_fpc_entry, monitor34) == 34);
static_assert(offsetof(sdb_fpc_entry, monitor36) == 36);
static_assert(sizeof(sdb_fpc_entry) == 40);
static_assert(sizeof(sdb_fpc_counters) == 16);
static_assert(sizeof(sdb_sched_row) == 13);
#endif

#endif
