/*
 * mmf: a heap inside one shared file.  Every structure in the file refers
 * to another by its 64-bit file offset, so each process may map the file
 * anywhere.  Any number of processes open the same file with no server in
 * between; one lock word in the header serialises them, and a waiter that
 * finds its holder dead takes the lock over.
 *
 * Names of files are absolute paths of the system (resolved below
 * TOLVAR_ROOT); a relative name is used as given.
 */
#ifndef MMF_MMF_H
#define MMF_MMF_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#include "mmf/mmf_format.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mmf mmf_t;

/* Create flags. */
#define MMF_CREATE_READ_ONLY		0x01
#define MMF_CREATE_RAW			0x02
#define MMF_CREATE_COMMON_RESIZE	0x04
#define MMF_CREATE_NO_ALLOC_8		0x08
#define MMF_CREATE_NO_ALLOC_10		0x10
#define MMF_CREATE_NO_ALLOC_20		0x20
#define MMF_CREATE_NO_ALLOCS		0x3A

#define MMF_MAX_UNLOCK_IN_PROGRESS	10
#define MMF_VALID_MAX_ITERS		1000000000u
#define MMF_MMAP_FLAGS			0xA01

/* errno of the last failed mmf_create of this process. */
extern int mmf_errno;
/* Code of the last fatal problem, kept for post-mortem inspection. */
extern int mmf_fatal_code;
/* For crash tests: called halfway through initialising a store. */
extern void (*mmf_init_test_hook)(void);

/*
 * Open the store, making it when the file is missing.  NULL on failure,
 * with the reason in mmf_errno: EUCLEAN for a file that is damaged or not
 * a heap (left untouched, with an MMF_CORRUPT event), otherwise the errno
 * of the failed call.  Bad geometry is a programming error and stops.
 */
mmf_t *mmf_create(const char *name, uint64_t max_bytes, uint64_t default_bytes,
    uint64_t grow_by_bytes, bool whole_mapped, uint64_t region_map_bytes,
    uint32_t max_mapped_regions, uint8_t num_alloc_sizes,
    const uint32_t *alloc_sizes, uint32_t flags, bool *created);
void mmf_close(mmf_t *mmf);
void mmf_delete(mmf_t *mmf);
int mmf_unlink(const char *name);

/*
 * Pointers into the store are valid until the next call on the handle
 * that may map (any of the calls below, from any thread): keep offsets,
 * and re-obtain pointers.  Damage met by a call marks the handle corrupt
 * (an MMF_CORRUPT event and a corrupt meminfo row); from then on mmf_alloc
 * gives NULL and mmf_free_offset does nothing.
 */
void *mmf_alloc(mmf_t *mmf, uint32_t bytes, uint64_t *offset);
void mmf_free_offset(mmf_t *mmf, uint64_t offset);
void *mmf_ensure_mapped(mmf_t *mmf, uint64_t offset, uint32_t len);
void *mmf_offset_to_ptr(mmf_t *mmf, uint64_t user_offset, uint32_t len);
void *mmf_alloc_common(mmf_t *mmf, uint32_t *len, uint64_t *offset);

void *mmf_alloc2(mmf_t *ctrl, mmf_t *data, uint32_t bytes, uint64_t *offset);
void mmf_free_offset2(mmf_t *ctrl, mmf_t *data, uint64_t offset);
void *mmf_ensure_mapped2(mmf_t *ctrl, mmf_t *data, uint64_t offset,
    uint32_t len);

uint32_t mmf_get_user_usable_len(mmf_t *mmf, uint64_t offset);
bool mmf_validate_user_offset(mmf_t *mmf, uint64_t offset, bool fatal);

void mmf_lock(mmf_t *mmf);
void mmf_unlock(mmf_t *mmf);

/* Whether the nodes tile the area.  The walk ends at the first bad node:
 * its length is damaged too, and what follows it cannot be found. */
bool mmf_valid(mmf_t *mmf, bool fatal);
bool mmf_grow(mmf_t *mmf);
bool mmf_try_grow(mmf_t *mmf);
void mmf_reset(mmf_t *mmf);
bool mmf_recreate(mmf_t *mmf);
void mmf_quiesce(mmf_t *mmf);
void mmf_show(const char *title, mmf_t *mmf);

uint64_t mmf_get_first_alloc_offset(mmf_t *mmf);
uint64_t mmf_get_allocated_bytes(mmf_t *mmf);
uint64_t mmf_get_current_bytes(mmf_t *mmf);
uint32_t mmf_get_common_len(mmf_t *mmf);
/* Fills sizes (room for 63) with the user sizes; returns their number. */
uint8_t mmf_get_allocation_info(mmf_t *mmf, uint32_t *sizes);
/* The mapped header, for tools and tests that read the counters. */
const mmf_shared_info_t *mmf_get_shared_info(mmf_t *mmf);

/* Helpers shared by the storage family. */
pid_t mmf_getpid(void);
/* A zombie counts as dead: it can release nothing, and its parent may be
 * slow to reap it. */
bool mmf_pid_alive(pid_t pid);
/* Whether pid has the file open as fd mapped: a live pid that does not is
 * no holder of a lock kept in that file. */
bool mmf_pid_maps_file(pid_t pid, int fd);
int mmf_mkdir_path(const char *path);
uint64_t mmf_lock_backoff(uint32_t spins);
void mmf_kill_lock_holder(const char *tag, pid_t pid);
uint32_t mmf_memory_divisor(uint64_t *bytes);
void mmf_detected_fatal_problem(int code, const char *expr, const char *file,
    int line) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

#endif
