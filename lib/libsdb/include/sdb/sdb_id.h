/*
 * The two number services of the main segment: the session id generator
 * and the unit pools.
 *
 * The id word (offset 0 of the segment) holds the last session id handed
 * out.  Ids grow by one, never have bit 63 set and wrap to 1 past
 * 0x7fffffffffffffff; 0 means "none".  Semaphore 0 guards every change;
 * a read takes no lock.
 *
 * A unit pool is a queue of free numbers kept as an array of link words
 * in the segment.  Pool 0 hands out the logical interface units of client
 * sessions (0x3ffff of them from 0x40000000), pool 1 the uids of the
 * secondary tables (9000, or 60000 on the large class, from 1000).
 * Semaphore 1 guards both.  Numbers come from the head and go back to the
 * tail, so a released number is reused as late as possible.
 *
 * Both semaphores are taken with SEM_UNDO: a process that dies holding
 * one does not block the next caller.
 */
#ifndef SDB_SDB_ID_H
#define SDB_SDB_ID_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_ID_MAX		0x7fffffffffffffffULL

/* Attach the generator; part of the environment's open. */
int sdb_id_init(bool creator);
void sdb_id_forget(void);
/* 0, the semaphore's failure code, or -1 when not attached. */
int sdb_id_generate(uint64_t *id);
/* The last id handed out; 0 when not attached.  No lock. */
uint64_t sdb_id_get(void);
/* Under the lock: store the value (set) or store it if greater (raise).
 * 0, or -1 when not attached or the lock failed. */
int sdb_id_set(uint64_t id);
int sdb_id_raise(uint64_t id);

/* Pool types. */
#define SDB_UNIT_IFL		0	/* logical interface units */
#define SDB_UNIT_UID		1	/* uids of the secondary tables */
#define SDB_UNIT_TYPES		2

#define SDB_UNIT_IFL_FIRST	0x40000000u
#define SDB_UNIT_UID_FIRST	1000u
/* A link word: the end of the list, or an allocated unit. */
#define SDB_UNIT_END		0xffffffffu
#define SDB_UNIT_EMPTY		0xfffffffeu	/* also read as "no head" */
/* What the parser gives for a string that is not a number. */
#define SDB_UNIT_INVALID	0xffffffffu

/* Results of the pool operations (they are not library status codes). */
#define SDB_UNIT_OK		 0
#define SDB_UNIT_ERR_POOL	-1	/* no pool, bad type, outside the pool */
#define SDB_UNIT_ERR_FREE	-2	/* released a unit that is free */
#define SDB_UNIT_ERR_LOCK	-3
#define SDB_UNIT_ERR_EMPTY	-5
#define SDB_UNIT_ERR_TYPE	-6	/* release with a bad type */

/*
 * The pool as it lies in the segment.  All words are u32 in host order;
 * link[i] is the index of the next free unit while i is free and
 * SDB_UNIT_END while i is allocated or the tail.
 */
struct sdb_unit_pool {
	uint32_t max_units;
	uint32_t available;
	uint32_t head;
	uint32_t tail;
	uint32_t link[];
};

int sdb_unit_init(uint32_t capacity, bool creator, int type);
void sdb_unit_forget(int type);
int sdb_unit_allocate(uint32_t *number, int type);
int sdb_unit_release(uint32_t number, int type);
int sdb_unit_clear(int type);
int sdb_unit_recover(uint32_t number, int type);
int sdb_unit_recovered(int type);
int sdb_dump_pool(int type);
/* The first number of a pool type; 0 for a bad type. */
uint32_t sdb_unit_first(int type);
/* The pool in this process's mapping, or null. */
struct sdb_unit_pool *sdb_unit_pool_ptr(int type);

/* A unit number as it travels in UNIT_NUMBER: leading decimal digits;
 * SDB_UNIT_INVALID for null, no digit or a value above 32 bits. */
uint32_t sdb_unit_number_parse(const char *s);

/*
 * The recovery log, "/var/log/sdb.recover": a record of one rebuild of
 * the tables from the stored sessions, written only while the switch is
 * on.  begin opens it, end writes both pools and closes it.
 */
void sdb_recover_log_set(bool on);
bool sdb_recover_log_enabled(void);
int sdb_recover_log_begin(void);
void sdb_recover_log_session(uint64_t id, int services, int state,
    uint32_t ipv4);
void sdb_recover_log_service(uint64_t id, int state);
void sdb_recover_log_service_failed(uint64_t id);
void sdb_recover_log_end(void);

#ifdef __cplusplus
}

static_assert(offsetof(sdb_unit_pool, max_units) == 0);
static_assert(offsetof(sdb_unit_pool, available) == 4);
static_assert(offsetof(sdb_unit_pool, head) == 8);
static_assert(offsetof(sdb_unit_pool, tail) == 12);
static_assert(offsetof(sdb_unit_pool, link) == 16);
#endif

#endif
