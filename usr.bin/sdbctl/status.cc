/*
 * sdbctl status: register with keel as a client and print what the
 * environment and the main segment say.
 */
#include <cinttypes>
#include <cstdio>

#include <sdb/keel.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>

#include "attach.h"
#include "sdbctl.h"

namespace {

const char *recovery_name(uint32_t status)
{
	switch (status) {
	case SDB_RECOVERY_OPENED: return "opened";
	case SDB_RECOVERY_REBUILDING: return "rebuilding";
	case SDB_RECOVERY_DONE: return "complete";
	default: return "none";
	}
}

void print_status(void)
{
	int state = sdb_db_env_state();
	printf("environment state: %d (%s)\n", state,
	    sdb_db_env_state_name(state));
	printf("scale class: %u\n", sdb_client_count());
	printf("large id space: %s\n", sdb_large_id_space() ? "yes" : "no");
	uint32_t rs = 0;
	sdb_recovery_status_get(&rs);
	printf("recovery status: %u (%s)\n", rs, recovery_name(rs));
	volatile uint64_t *id = sdb_id_word();
	printf("next session id: %" PRIu64 "\n", id != nullptr ? *id : 0);
	uint8_t sync_state = 0, sync_flag = 0;
	uint32_t percent = 0;
	char text[SDB_STATUS_TEXT_LEN];
	sdb_status_block_get(&sync_state, &sync_flag, text, sizeof(text),
	    &percent);
	printf("sync state: %u\n", sync_state);
	printf("sync flag: %u\n", sync_flag);
	printf("sync text: %s\n", text);
	printf("sync progress: %u%%\n", percent);
}

} // namespace

int sdbctl_status(int argc, char **argv)
{
	(void)argv;
	if (argc != 1) {
		fprintf(stderr, "usage: sdbctl status\n");
		return SDBCTL_EXIT_USAGE;
	}
	keel_handle *h = sdbctl_attach("status");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	print_status();
	sdbctl_detach(h);
	return 0;
}
