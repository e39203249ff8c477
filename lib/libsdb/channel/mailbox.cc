/*
 * The mailbox page: key ftok("/mfs/var/tmp/sdb_shmem", 8889), 4096 bytes,
 * of which only the first word is used, between the replication server
 * and its clients.
 *
 * Mode 0600, not world-writable: every process that uses it (keel, the
 * subscriber-management daemons, the replication server) runs as root, and
 * a page that any local user could write would let one change what the
 * server and its clients tell each other.
 */
#include "sdb/sdb_bbe.h"

#include "mmf/meminfo.h"
#include "sdb_impl.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace {

uint8_t *mailbox;
uint64_t meminfo_index;

void detach()
{
	if (mailbox != nullptr)
		shmdt(mailbox);
	mailbox = nullptr;
}

} // namespace

extern "C" int sdb_bbe_mailbox_attach(bool create)
{
	detach();
	std::string key_file = sdb_store_path(SDB_SHM_KEY_FILE);
	key_t key = ftok(key_file.c_str(), SDB_BBE_MAILBOX_PROJECT);
	if (key == (key_t)-1)
		return -1;
	bool made = false;
	int id = shmget(key, SDB_BBE_MAILBOX_BYTES, 0600);
	if (id >= 0) {
		sdb_trace(SDB_TRACE_INFO, "mailbox shared memory exist");
	} else if (!create) {
		sdb_trace(SDB_TRACE_ERR, "Failed to get mailbox shared memory");
		return -1;
	} else {
		sdb_trace(SDB_TRACE_INFO, "mailbox shared memory does not exist");
		id = shmget(key, SDB_BBE_MAILBOX_BYTES, IPC_CREAT | 0600);
		if (id < 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "Failed to create mailbox shared memory");
			return -1;
		}
		made = true;
	}
	void *p = shmat(id, nullptr, 0);
	if (p == (void *)-1) {
		sdb_trace(SDB_TRACE_ERR, "Failed to attach mailbox shared memory");
		return -1;
	}
	mailbox = static_cast<uint8_t *>(p);
	if (made)
		memset(mailbox, 0, SDB_BBE_MAILBOX_BYTES);
	meminfo_shm_t row{};
	strncpy(row.name, SDB_BBE_MAILBOX_NAME, sizeof(row.name) - 1);
	row.current_bytes = row.max_bytes = row.mappable_bytes =
	    SDB_BBE_MAILBOX_BYTES;
	meminfo_update_shm(&row, &meminfo_index);
	return 0;
}

extern "C" void sdb_bbe_mailbox_set(uint8_t value)
{
	if (mailbox != nullptr)
		std::atomic_ref<uint8_t>(mailbox[0]).store(value);
}

extern "C" uint8_t sdb_bbe_mailbox_get(void)
{
	if (mailbox == nullptr)
		return 1;
	return std::atomic_ref<uint8_t>(mailbox[0]).load();
}

/* The place of the mailbox in the open and close order of a store. */
int sdb_mailbox_attach(bool create)
{
	return sdb_bbe_mailbox_attach(create);
}

void sdb_mailbox_detach(void)
{
	detach();
}
