#include "events.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char *no_attrs[] = {nullptr};
constexpr const char *attr_option[] = {"option", nullptr};
constexpr const char *attr_error_message[] = {"error-message", nullptr};
constexpr const char *attr_retry_count[] = {"retry-count", nullptr};
constexpr const char *attr_program_name[] = {"program-name", nullptr};
constexpr const char *attr_error_code[] = {"error-code", nullptr};
constexpr const char *attr_system_seconds[] = {"system-seconds", nullptr};
constexpr const char *attr_name_error[] = {"name", "error-message", nullptr};

constexpr int PRI_ERR = LOG_PRI_INTERNAL_ERR;

constexpr std::array<tolvard_event_def, TOLVARD_EVENT_COUNT> events = {{
	{TOLVARD_ARGUMENT_FAILURE, "TOLVARD_ARGUMENT_FAILURE", PRI_ERR,
	 attr_option, "Unknown option \"%c\""},
	{TOLVARD_DAEMONIZE_FAILED, "TOLVARD_DAEMONIZE_FAILED", PRI_ERR,
	 attr_error_message, "Unable to run in the background as daemon: %s"},
	{TOLVARD_DB_OPEN_FAILED, "TOLVARD_DB_OPEN_FAILED", 3,
	 attr_retry_count, "Failed to open DB %d times, giving up"},
	{TOLVARD_EVENT_CTX_CREATE_FAILED, "TOLVARD_EVENT_CTX_CREATE_FAILED", PRI_ERR,
	 attr_error_message, "Unable to create event context: %s"},
	{TOLVARD_GRES_BACK_TO_MASTER, "TOLVARD_GRES_BACK_TO_MASTER", 3,
	 no_attrs, "GRES switched back to master, before standby closed down"},
	{TOLVARD_GRES_DISABLED, "TOLVARD_GRES_DISABLED", 6,
	 no_attrs, "Cannot start replication, graceful restart disabled"},
	{TOLVARD_GRES_REBOOT_FAIL, "TOLVARD_GRES_REBOOT_FAIL", 3,
	 no_attrs, "Standby RE failed to reboot, tolvard exiting"},
	{TOLVARD_GRES_SWITCH_TO_NONE, "TOLVARD_GRES_SWITCH_TO_NONE", 6,
	 no_attrs, "Switched from Master to None, wait for reboot"},
	{TOLVARD_MIRROR_CONN_DOWN, "TOLVARD_MIRROR_CONN_DOWN", 6,
	 no_attrs, "Cannot start replication, mirroring down"},
	{TOLVARD_MIRROR_CONN_LOST, "TOLVARD_MIRROR_CONN_LOST", 6,
	 no_attrs, "Lost mirroring connection"},
	{TOLVARD_MIRROR_CONN_READY, "TOLVARD_MIRROR_CONN_READY", 6,
	 no_attrs, "Mirroring connection up"},
	{TOLVARD_MIRROR_NOT_SUPPORTED, "TOLVARD_MIRROR_NOT_SUPPORTED", 3,
	 no_attrs, "No Mirroring Init, platform not supported"},
	{TOLVARD_MIRROR_NO_GRES, "TOLVARD_MIRROR_NO_GRES", 6,
	 no_attrs, "No Mirroring Init, Graceful Switchover not configured"},
	{TOLVARD_MIRROR_NO_ROLE, "TOLVARD_MIRROR_NO_ROLE", 6,
	 no_attrs, "No mirror init, RE is neither Master nor Standby"},
	{TOLVARD_MIRROR_NO_STANDBY, "TOLVARD_MIRROR_NO_STANDBY", 6,
	 no_attrs, "Standby card not present"},
	{TOLVARD_NOT_ROOT, "TOLVARD_NOT_ROOT", PRI_ERR,
	 attr_program_name, "%s must be run as root"},
	{TOLVARD_PID_FILE_LOCK, "TOLVARD_PID_FILE_LOCK", PRI_ERR,
	 attr_program_name, "Unable to lock PID file; another %s was running"},
	{TOLVARD_PID_FILE_UPDATE, "TOLVARD_PID_FILE_UPDATE", PRI_ERR,
	 attr_program_name, "Unable to update PID file for %s"},
	{TOLVARD_REP_START_FAILED, "TOLVARD_REP_START_FAILED", 3,
	 attr_error_code, "Failed to start replication, err:%d"},
	{TOLVARD_RESTART_CREATE_FAILED, "TOLVARD_RESTART_CREATE_FAILED", 3,
	 attr_system_seconds, "Failed to create timer for restart, sleep for %u secs"},
	{TOLVARD_SERVER_ACCEPT_FAILED, "TOLVARD_SERVER_ACCEPT_FAILED", 3,
	 attr_error_message, "Unable to accept a local client connection: %s"},
	{TOLVARD_KEEL_UNREGISTER_FAILED, "TOLVARD_KEEL_UNREGISTER_FAILED", 3,
	 attr_name_error, "Failed to close %s, err:%s"},
	{TOLVARD_TIMER_CREATE_FAILED, "TOLVARD_TIMER_CREATE_FAILED", 3,
	 no_attrs, "Failed to create timer for DB open"},
	{TOLVARD_TIMER_INIT_FAILED, "TOLVARD_TIMER_INIT_FAILED", 3,
	 no_attrs, "Failed to init timer context"},
}};

/* The table is indexed by id: keep the rows in the order of the enum. */
constexpr bool rows_in_order()
{
	for (size_t i = 0; i < events.size(); i++)
		if (events[i].id != static_cast<tolvard_event_id>(i))
			return false;
	return true;
}
static_assert(rows_in_order(), "event table out of order");

} // namespace

const tolvard_event_def *tolvard_event_find(tolvard_event_id id)
{
	if (id < 0 || id >= TOLVARD_EVENT_COUNT)
		return nullptr;
	return &events[id];
}

void tolvard_event(int id, ...)
{
	const tolvard_event_def *ev =
	    tolvard_event_find(static_cast<tolvard_event_id>(id));
	if (ev == nullptr)
		return;
	char text[1024];
	va_list ap;
	va_start(ap, id);
	vsnprintf(text, sizeof(text), ev->text, ap);
	va_end(ap);
	logging_event(ev->priority, ev->tag, ev->attrs, "%s: %s", ev->tag, text);
	/* In the foreground an operator sees the errors; in the background
	 * stderr is /dev/null. */
	if (ev->priority == PRI_ERR)
		fprintf(stderr, "tolvard: %s\n", text);
}
