/*
 * aack: acknowledgement groups that finish in order.  Acknowledgements
 * from a remote peer release the local records queued behind them.
 */
#ifndef MMF_AACK_H
#define MMF_AACK_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define AACK_FLAG_ACKED		0x1u
#define AACK_SUCCESS		0
#define AACK_NO_MORE		2

typedef struct aack_rec aack_rec_t;
typedef struct aack_id {
	uint32_t flag;
	struct aack_id *next;
	aack_rec_t *head, *tail, *cursor;
} aack_id_t;

typedef struct aack_list {
	aack_id_t *first, *last;
} aack_list_t;

aack_list_t *aack_create(void);
aack_id_t *aack_id_create(aack_list_t *list);
bool aack_id_add(aack_id_t *id, uint32_t len, const void *bytes);
aack_id_t *aack_get_first(aack_list_t *list);
bool aack_id_ack(aack_list_t *list, aack_id_t *id);
int aack_id_get_next(aack_list_t *list, aack_id_t *id, uint32_t *len,
    const void **ptr);
void aack_id_delete(aack_id_t **id);
void aack_list_delete(aack_list_t **list);
const char *aack_status_text(int status);

#ifdef __cplusplus
}
#endif

#endif
