/*
 * Stand-ins for the record channel until it is built.  Each keeps its
 * place in the start-up order and the signal table and traces that it is
 * missing.  Their answers are the ones that change nothing: no mirror, no
 * entry to send, nothing sent.
 */
#include "tolvard.h"

int tolvard_mirror_init(void)
{
	tolvard_trace(TRACE_MIRROR, "%s: mirror link not built yet", __func__);
	return -1;
}

void tolvard_session_id_check(void)
{
	tolvard_trace(TRACE_DB, "%s: record channel not built yet", __func__);
}

struct tolvard_entry *tolvard_rep_send(const void *data, uint32_t size,
    uint32_t msg_type, uint8_t ack)
{
	(void)data;
	(void)size;
	(void)ack;
	tolvard_trace(TRACE_DB, "%s(%u): record channel not built yet",
	    __func__, msg_type);
	return nullptr;
}

void tolvard_session_id_send(void)
{
	tolvard_trace(TRACE_DB, "%s: record channel not built yet", __func__);
}

void tolvard_info_send(uint32_t state)
{
	tolvard_trace(TRACE_DB, "%s(%u): record channel not built yet",
	    __func__, state);
}

void tolvard_poll(otimer_t *timer, void *arg)
{
	(void)timer;
	(void)arg;
}
