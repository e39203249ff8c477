/*
 * Setting up the mirror link with the record channel's one data class,
 * "TOLVARD session".  What happens when the role or the link changes is
 * role.cc's; this file only makes the link and registers the class.
 */
#include "rep.h"
#include "events.h"

#include <platform/chassis.h>
#include <sdb/sdb_id.h>

namespace {

/* The class walks nothing on a resync: only the end record goes out. */
mirror_data_node *no_next(mirror_data_node *)
{
	return nullptr;
}

void clear_all(void)
{
	tolvard_trace(TRACE_MIRROR, "Mirror Lib, clear all");
}

/*
 * The peer compares these names with its own table, id by id: a class is
 * shared only under the same id and name.  They and their order are what
 * every tolvard sends; another name for 0 or 1 would leave the peer
 * without our end-of-database records and our answers to its resyncs.
 */
const mirror_db_entry db_table[] = {
	{TOLVARD_DATA_ID, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

void empty_free_list(void)
{
	while (tolvard_entry *e = TAILQ_FIRST(&tolvard_state.free_list)) {
		TAILQ_REMOVE(&tolvard_state.free_list, e, free_links);
		e->free_links.tqe_prev = nullptr;
	}
}

} // namespace

/* The mirror library's warnings and errors, into the mirror category. */
extern "C" void
mirror_report(int code, const char *text)
{
	if (code == MIRROR_REPORT_WARNING)
		tolvard_trace(TRACE_MIRROR, "mirror warning: %s", text);
	else if (code == MIRROR_REPORT_ERROR)
		tolvard_trace(TRACE_MIRROR, "mirror error: %s", text);
}

mirror_reg_entry tolvard_session_class = {
	.mirror_data_lock_func = tolvard_data_lock,
	.mirror_data_unlock_func = tolvard_data_unlock,
	.mirror_data_encode_func = tolvard_data_encode,
	.mirror_data_decode_func = tolvard_data_decode,
	.mirror_data_get_next_func = no_next,
	.mirror_data_clear_func = clear_all,
	.mirror_data_state_func = tolvard_mirror_event,
	.mirror_data_ack_func = tolvard_data_ack,
	.mirror_data_eod_func = nullptr,
	.mirror_receiver = MIRROR_RECEIVER_BOTH,
	.mirror_data_id = TOLVARD_DATA_ID,
	.mirror_resync_unpaced = 0,
	.mirror_no_resync = 0,
};

int tolvard_mirror_init(void)
{
	tolvard_state.gres_enabled = tolvard_state.gres_configured;
	if (!tolvard_state.gres_enabled) {
		tolvard_trace(TRACE_MIRROR,
		    "No Mirroring Init, Graceful Switchover not configured");
		tolvard_event(TOLVARD_MIRROR_NO_GRES);
		return -1;
	}
	if (!tolvard_state.platform_ok) {
		tolvard_trace(TRACE_MIRROR,
		    "No Mirroring Init, platform not supported");
		tolvard_event(TOLVARD_MIRROR_NOT_SUPPORTED);
		return -1;
	}
	if (tolvard_state.mirror_inited)
		return -1;
	tolvard_trace(TRACE_MIRROR, "Mirroring Init");
	if (tolvard_state.role == role_master) {
		tolvard_trace(TRACE_MIRROR, "We are Master");
	} else if (tolvard_state.role == role_standby) {
		tolvard_trace(TRACE_MIRROR, "We are Standby");
	} else {
		tolvard_trace(TRACE_MIRROR, "We are neither Master nor Standby");
		tolvard_event(TOLVARD_MIRROR_NO_ROLE);
		return -1;
	}
	tolvard_state.session_id_sent = sdb_id_get();
	if (tolvard_state.poll_timer == nullptr)
		tolvard_state.poll_timer = otimer_create(
		    tolvard_state.timer_context, nullptr, tolvard_poll, nullptr);
	if (tolvard_state.poll_timer == nullptr) {
		tolvard_trace(TRACE_MIRROR, "Failed to create poll timer");
		return -1;
	}
	tolvard_trace(TRACE_MIRROR, "Created Poll Timer");
	empty_free_list();

	mirror_state ms = {};
	ms.mirror_db_table = db_table;
	ms.mirror_first_id = 0;
	ms.MIRROR_DATA_LAST = 3;
	ms.mirror_ack_id = 1;
	ms.mirror_eod_id = 0;
	ms.port = MIRROR_PORT;
	ms.lr_id = 0;
	ms.is_master = tolvard_state.role == role_master;
	ms.mirror_eventlib_context = tolvard_state.event_context;
	ms.mirror_timer_context = tolvard_state.timer_context;
	/* Only a task host takes the library's own lines; tolvard hears of
	 * what matters through mirror_report(). */
	ms.trace = nullptr;
	if (nmchassis_is_virtual_chassis()) {
		tolvard_state.mirror_max_entries = TOLVARD_MIRROR_ENTRIES_VC;
		ms.large_buffers = 1;
	} else {
		tolvard_state.mirror_max_entries = TOLVARD_MIRROR_ENTRIES;
	}
	int rc = mirror_setup(&ms);
	if (rc == 0)
		rc = mirror_register_data(&tolvard_session_class);
	if (rc == 0)
		rc = mirror_start();
	if (rc != 0) {
		tolvard_trace(TRACE_MIRROR, "Mirroring set-up failed, errno %d", rc);
		return -1;
	}
	tolvard_state.mirror_inited = 1;
	return 0;
}
