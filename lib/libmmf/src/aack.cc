/*
 * Acknowledgement groups, in order.  A group is acked only when it is the
 * first; its records are then handed out one by one, and the group goes
 * when the last has been taken.
 */
#include "mmf/aack.h"

#include "mmf_impl.h"

#include <cstdlib>
#include <cstring>

struct aack_rec {
	aack_rec_t *next;
	uint32_t len;
	uint8_t bytes[];
};

extern "C" aack_list_t *aack_create(void)
{
	auto *l = static_cast<aack_list_t *>(calloc(1, sizeof(aack_list_t)));
	MMF_ASSERT(l != nullptr);
	return l;
}

extern "C" aack_id_t *aack_id_create(aack_list_t *list)
{
	auto *id = static_cast<aack_id_t *>(calloc(1, sizeof(aack_id_t)));
	MMF_ASSERT(id != nullptr);
	if (list->last != nullptr)
		list->last->next = id;
	else
		list->first = id;
	list->last = id;
	return id;
}

extern "C" bool aack_id_add(aack_id_t *id, uint32_t len, const void *bytes)
{
	auto *r = static_cast<aack_rec_t *>(malloc(sizeof(aack_rec_t) + len));
	if (r == nullptr)
		return false;
	r->next = nullptr;
	r->len = len;
	memcpy(r->bytes, bytes, len);
	if (id->tail != nullptr)
		id->tail->next = r;
	else
		id->head = id->cursor = r;
	id->tail = r;
	if (id->cursor == nullptr)
		id->cursor = r;
	return true;
}

extern "C" aack_id_t *aack_get_first(aack_list_t *list)
{
	return list == nullptr ? nullptr : list->first;
}

extern "C" bool aack_id_ack(aack_list_t *list, aack_id_t *id)
{
	if (list->first != id)
		return false;
	MMF_ASSERT((id->flag & AACK_FLAG_ACKED) == 0);
	id->flag |= AACK_FLAG_ACKED;
	return true;
}

extern "C" int aack_id_get_next(aack_list_t *list, aack_id_t *id,
    uint32_t *len, const void **ptr)
{
	aack_id_t *a = list->first;
	if (a == nullptr || !(a->flag & AACK_FLAG_ACKED))
		return AACK_NO_MORE;
	MMF_ASSERT(a == id);
	if (a->cursor != nullptr) {
		*len = a->cursor->len;
		*ptr = a->cursor->bytes;
		a->cursor = a->cursor->next;
		return AACK_SUCCESS;
	}
	list->first = a->next;
	if (list->first == nullptr)
		list->last = nullptr;
	aack_id_delete(&a);
	return AACK_NO_MORE;
}

extern "C" void aack_id_delete(aack_id_t **id)
{
	if (id == nullptr || *id == nullptr)
		return;
	for (aack_rec_t *r = (*id)->head; r != nullptr;) {
		aack_rec_t *next = r->next;
		free(r);
		r = next;
	}
	free(*id);
	*id = nullptr;
}

extern "C" void aack_list_delete(aack_list_t **list)
{
	if (list == nullptr || *list == nullptr)
		return;
	for (aack_id_t *a = (*list)->first; a != nullptr;) {
		aack_id_t *next = a->next;
		aack_id_delete(&a);
		a = next;
	}
	free(*list);
	*list = nullptr;
}

extern "C" const char *aack_status_text(int status)
{
	switch (status) {
	case AACK_SUCCESS:
		return "aack success";
	case AACK_NO_MORE:
		return "aack no more";
	default:
		return "aack status unknown";
	}
}
