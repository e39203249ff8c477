/*
 * System events of tolvard.  Each has a fixed tag, priority, attribute
 * names and text; the text sent is the tag, ": " and the formatted text,
 * with one value per attribute.
 */
#ifndef TOLVARD_EVENTS_H
#define TOLVARD_EVENTS_H

#include <platform/logging.h>

enum tolvard_event_id {
	TOLVARD_ARGUMENT_FAILURE,
	TOLVARD_DAEMONIZE_FAILED,
	TOLVARD_DB_OPEN_FAILED,
	TOLVARD_EVENT_CTX_CREATE_FAILED,
	TOLVARD_GRES_BACK_TO_MASTER,
	TOLVARD_GRES_DISABLED,
	TOLVARD_GRES_REBOOT_FAIL,
	TOLVARD_GRES_SWITCH_TO_NONE,
	TOLVARD_MIRROR_CONN_DOWN,
	TOLVARD_MIRROR_CONN_LOST,
	TOLVARD_MIRROR_CONN_READY,
	TOLVARD_MIRROR_NOT_SUPPORTED,
	TOLVARD_MIRROR_NO_GRES,
	TOLVARD_MIRROR_NO_ROLE,
	TOLVARD_MIRROR_NO_STANDBY,
	TOLVARD_NOT_ROOT,
	TOLVARD_PID_FILE_LOCK,
	TOLVARD_PID_FILE_UPDATE,
	TOLVARD_REP_START_FAILED,
	TOLVARD_RESTART_CREATE_FAILED,
	TOLVARD_SERVER_ACCEPT_FAILED,
	TOLVARD_KEEL_UNREGISTER_FAILED,
	TOLVARD_TIMER_CREATE_FAILED,
	TOLVARD_TIMER_INIT_FAILED,
	TOLVARD_EVENT_COUNT
};

struct tolvard_event_def {
	enum tolvard_event_id id;
	const char *tag;
	int priority;
	const char *const *attrs;	/* NULL-terminated */
	const char *text;		/* printf format, after "<tag>: " */
};

const struct tolvard_event_def *tolvard_event_find(enum tolvard_event_id id);

/*
 * Send event id with the values its text asks for.  The id is an int, not
 * the enum, because the last named argument before "..." must not be a
 * type that undergoes promotion.
 */
void tolvard_event(int id, ...);

#endif
