/*
 * Stand-ins for the parts of the daemon that are not built yet: role and
 * switchover control, the record channel and the local server.  Each keeps
 * its place in the start-up order and the signal table and traces that it
 * is missing.  Their answers are the ones that change nothing: no mirror,
 * no role change, replication not ready.
 */
#include "tolvard.h"
#include "keel_client.h"

#include <cstdio>

int tolvard_mirror_init(void)
{
	tolvard_trace(TRACE_MIRROR, "%s: mirror link not built yet", __func__);
	return -1;
}

int tolvard_mirror_mastership_change(void)
{
	tolvard_trace(TRACE_MIRROR,
	    "%s: role and switchover control not built yet", __func__);
	return 0;
}

void tolvard_gres_sync(void)
{
	tolvard_trace(TRACE_MIRROR,
	    "%s: role and switchover control not built yet", __func__);
}

int tolvard_rep_start(void)
{
	tolvard_trace(TRACE_DB, "%s: replication not built yet", __func__);
	return -1;
}

void tolvard_rep_ready_set(int ready)
{
	tolvard_trace(TRACE_DB, "%s(%d): replication readiness not built yet",
	    __func__, ready);
}

void tolvard_session_id_check(void)
{
	tolvard_trace(TRACE_DB, "%s: record channel not built yet", __func__);
}

int tolvard_server_init(void)
{
	tolvard_trace(TRACE_SERVER, "%s: local server not built yet", __func__);
	return 0;
}

void tolvard_conn_dump(void)
{
	tolvard_trace(TRACE_SERVER, "%s: local server not built yet", __func__);
}

/*
 * ISSU answers on the master: ready only while the link is up and the
 * standby has said it is ready; otherwise ask for the long wait.
 */
void tolvard_issu_prepare(void *ctx, int *abort, int *ready,
    struct keel_issu_info *info)
{
	*abort = 0;
	tolvard_issu_switchover_prepare(ctx, ready, info);
}

void tolvard_issu_switchover_prepare(void *ctx, int *ready,
    struct keel_issu_info *info)
{
	(void)ctx;
	if (tolvard_state.mirror_up && tolvard_state.rep_ready) {
		*ready = 1;
		info->wait = 0;
		return;
	}
	*ready = 0;
	info->wait = 1800;
	snprintf(info->text, sizeof(info->text), "Waiting for repository sync");
}

void tolvard_issu_done(void *ctx)
{
	(void)ctx;
}
