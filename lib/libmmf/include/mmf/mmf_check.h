/*
 * Read-only check of a heap file image.  The file is outside bytes: a
 * damaged or foreign file is reported, never followed.  Used by the opener
 * for the header, by sdbctl for a whole file, and by the fuzzer.
 */
#ifndef MMF_MMF_CHECK_H
#define MMF_MMF_CHECK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "mmf/mmf_format.h"

#ifdef __cplusplus
extern "C" {
#endif

enum mmf_check_status {
	MMF_CHECK_OK = 0,
	MMF_CHECK_SHORT,		/* shorter than a header */
	MMF_CHECK_MAGIC,		/* not a heap, or not ready */
	MMF_CHECK_VERSION,		/* version or header size */
	MMF_CHECK_SANITY,		/* reserved sanity word */
	MMF_CHECK_SIZE,			/* current_bytes against the file */
	MMF_CHECK_CLASSES,		/* size classes */
	MMF_CHECK_LAYOUT,		/* first_alloc_offset, common area */
	MMF_CHECK_NODE,			/* a node header or trailer */
	MMF_CHECK_TILING,		/* nodes do not tile the area */
	MMF_CHECK_FREE_LIST,		/* a free list is broken */
	MMF_CHECK_ACCOUNTING,		/* allocated bytes disagree */
};

struct mmf_check_report {
	enum mmf_check_status status;
	uint64_t bad_offset;		/* where the damage was found */
	uint64_t nodes;
	uint64_t free_nodes;
	uint64_t free_bytes;
	uint64_t used_nodes;
	uint64_t used_bytes;
	char detail[128];
	/*
	 * The status names a state the next open repairs by itself (an
	 * unfinished grow, free lists or allocated bytes that disagree with
	 * nodes that tile): the store is not damaged.
	 */
	bool repairable;
};

const char *mmf_check_status_text(enum mmf_check_status status);

/*
 * Check the header of an image of file_bytes bytes (of which at least the
 * header is in image).  A file left at magic 0 or in initialisation is
 * reported as MMF_CHECK_MAGIC.
 */
enum mmf_check_status mmf_check_header(const void *image, size_t image_bytes,
    uint64_t file_bytes, struct mmf_check_report *report);

/* Header, node tiling, free lists and accounting of a whole image. */
enum mmf_check_status mmf_check_image(const void *image, size_t image_bytes,
    struct mmf_check_report *report);

/* Copy len bytes at offset into buf; the number of bytes copied. */
typedef size_t (*mmf_check_read_fn)(void *ctx, uint64_t offset, void *buf,
    size_t len);

/* The same check of a file of file_bytes bytes, read in pieces of at most
 * a MiB through read. */
enum mmf_check_status mmf_check_file(mmf_check_read_fn read, void *ctx,
    uint64_t file_bytes, struct mmf_check_report *report);

#ifdef __cplusplus
}
#endif

#endif
