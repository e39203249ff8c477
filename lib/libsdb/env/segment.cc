/*
 * The main segment: a System V segment under ftok("/mfs/var/tmp/sdb_shmem",
 * 8888) that holds the session id word, the unit pools, the summary
 * counters, the recovery status, the limit tables and the status block.
 * Only keel creates it; it outlives every process that attaches it.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include "platform/paths.h"
#include "sdb_impl.h"

namespace {

uint8_t *seg_base;
uint32_t seg_size;

uint32_t expected_size(void)
{
	return SDB_SEG_SIZE + (sdb_large_id_space() ? SDB_SEG_LARGE_EXTRA : 0);
}

sdb_status_block *status_block(void)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	return t != nullptr ? &t->status : nullptr;
}

void set_text(sdb_status_block *sb, const char *text)
{
	char buf[SDB_STATUS_TEXT_LEN];
	snprintf(buf, sizeof(buf), "%s", text);
	memcpy(sb->sync_text, buf, sizeof(buf));
}

int create_key_file(void)
{
	std::string key = sdb_store_path(SDB_SHM_KEY_FILE);
	int fd = open(key.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
	    0644);
	if (fd < 0) {
		sdb_trace(SDB_TRACE_ERR,
		    "Failed to open shared memory key file %s, errno=%s",
		    key.c_str(), strerror(errno));
		return SDB_ERR_FATAL;
	}
	close(fd);
	return 0;
}

} // namespace

int sdb_segment_attach(bool is_keel)
{
	if (seg_base != nullptr)
		return 0;
	if (is_keel && create_key_file() != 0)
		return SDB_ERR_FATAL;
	std::string key_file = sdb_store_path(SDB_SHM_KEY_FILE);
	key_t key = ftok(key_file.c_str(), SDB_SHM_PROJECT);
	if (key == (key_t)-1) {
		sdb_note_open_errno(errno);
		sdb_trace(SDB_TRACE_ERR, "Failed to get shared memory");
		return SDB_ERR_FATAL;
	}
	uint32_t size = expected_size();
	bool created = false;
	/* 0600 asks for read and write: a user without them fails here. */
	int id = shmget(key, size, 0600);
	if (id < 0) {
		sdb_note_open_errno(errno);
		if (!is_keel || errno != ENOENT) {
			/* EINVAL: a segment of another layout (the id-space
			 * class changed).  Never replace it: it holds ids. */
			sdb_trace(SDB_TRACE_ERR, "Failed to get shared memory");
			return SDB_ERR_FATAL;
		}
		sdb_trace(SDB_TRACE_INFO, "shared memory does not exist");
		id = shmget(key, size, IPC_CREAT | IPC_EXCL |
		    sdb_access_ipc_mode());
		if (id < 0) {
			sdb_trace(SDB_TRACE_ERR, "Failed to create shared memory");
			return SDB_ERR_FATAL;
		}
		created = true;
	} else {
		sdb_trace(SDB_TRACE_INFO, "shared memory exist");
	}
	if (is_keel)
		sdb_access_shm(id);
	struct shmid_ds ds;
	if (shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz != size) {
		/* A segment of the other id-space class would put every
		 * word after the unit pools at the wrong place. */
		sdb_trace(SDB_TRACE_ERR, "Failed to get shared memory");
		sdb_trace(SDB_TRACE_ERR, "Failed to init shared memory %d",
		    SDB_ERR_FATAL);
		return SDB_ERR_FATAL;
	}
	void *p = shmat(id, nullptr, 0);
	if (p == (void *)-1) {
		sdb_note_open_errno(errno);
		sdb_trace(SDB_TRACE_ERR, "Failed to attach shared memory");
		sdb_trace(SDB_TRACE_ERR, "Failed to init shared memory %d",
		    SDB_ERR_FATAL);
		return SDB_ERR_FATAL;
	}
	seg_base = static_cast<uint8_t *>(p);
	seg_size = size;
	sdb_status_block *sb = status_block();
	if (created) {
		memset(seg_base, 0, size);
		sb->init_flag = sdb_init_flag;
		sb->sync_flag = 0;
		set_text(sb, "Unknown");
	} else if (is_keel && sb->sync_text[0] == '\0') {
		/* A keel that died between creating and filling the segment
		 * left the text empty; "Unknown" is what a reader expects. */
		set_text(sb, "Unknown");
	}
	return 0;
}

void sdb_segment_detach(void)
{
	if (seg_base != nullptr)
		shmdt(seg_base);
	seg_base = nullptr;
	seg_size = 0;
}

extern "C" uint8_t *sdb_main_segment(void)
{
	return seg_base;
}

extern "C" uint32_t sdb_main_segment_size(void)
{
	return seg_size;
}

extern "C" volatile uint64_t *sdb_id_word(void)
{
	if (seg_base == nullptr)
		return nullptr;
	return reinterpret_cast<volatile uint64_t *>(seg_base + SDB_SEG_ID_WORD);
}

extern "C" sdb_seg_tail *sdb_seg_tail_ptr(void)
{
	if (seg_base == nullptr)
		return nullptr;
	uint32_t l = seg_size > SDB_SEG_SIZE ? SDB_SEG_LARGE_EXTRA : 0;
	return reinterpret_cast<sdb_seg_tail *>(seg_base + SDB_SEG_TAIL + l);
}

extern "C" int sdb_recovery_status_get(uint32_t *status)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	if (t == nullptr)
		return SDB_ERR_NOT_STARTED;
	*status = sdb_word(t->recovery_status).load();
	return 0;
}

/*
 * Starting a bulk sync clears all four progress rows before it sets the
 * totals, so that a reader never mixes the rows of two runs.
 */
extern "C" int sdb_status_block_state_set(uint8_t state)
{
	sdb_status_block *sb = status_block();
	if (sb == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (state == SDB_SYNC_STATE_RUNNING) {
		memset((void *)sb->progress, 0, sizeof(sb->progress));
		sb->sync_state = 0;
		volatile uint64_t *id = sdb_id_word();
		sb->progress[0].total = *id;
		sdb_db_info *info = sdb_db_info_ptr();
		sb->progress[1].total = info != nullptr ? info->app_def_total : 0;
	}
	sb->sync_state = state;
	return 0;
}

extern "C" int sdb_status_block_progress_set(int row, uint64_t done,
    uint64_t total)
{
	sdb_status_block *sb = status_block();
	if (sb == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (row < 0 || row >= SDB_STATUS_ROWS)
		return SDB_ERR_PARAM;
	if (total == 0)
		return 0;
	sb->progress[row].done = done;
	sb->progress[row].total = done > total ? done : total;
	return 0;
}

extern "C" int sdb_status_block_get(uint8_t *state, uint8_t *flag,
    char *text, size_t text_size, uint32_t *percent)
{
	sdb_status_block *sb = status_block();
	if (sb == nullptr)
		return SDB_ERR_NOT_STARTED;
	uint8_t st = (uint8_t)(sb->sync_state & 0xff);
	if (state != nullptr)
		*state = st;
	if (flag != nullptr)
		*flag = sb->sync_flag;
	if (text != nullptr && text_size > 0) {
		/* The text is another process's bytes: bound it. */
		size_t n = strnlen(sb->sync_text, SDB_STATUS_TEXT_LEN - 1);
		if (n >= text_size)
			n = text_size - 1;
		memcpy(text, sb->sync_text, n);
		text[n] = '\0';
	}
	if (percent != nullptr) {
		uint64_t done = 0, total = 0;
		for (int i = 0; i < SDB_STATUS_ROWS; i++) {
			done += sb->progress[i].done;
			total += sb->progress[i].total;
		}
		*percent = (st == SDB_SYNC_STATE_RUNNING && total != 0) ?
		    (uint32_t)(100 * done / total) : 0;
	}
	return 0;
}

extern "C" int sdb_status_block_text_set(const char *text)
{
	sdb_status_block *sb = status_block();
	if (sb == nullptr)
		return SDB_ERR_NOT_STARTED;
	set_text(sb, text != nullptr ? text : "");
	return 0;
}

extern "C" int sdb_status_block_flag_set(uint8_t flag)
{
	sdb_status_block *sb = status_block();
	if (sb == nullptr)
		return SDB_ERR_NOT_STARTED;
	sb->sync_flag = flag;
	return 0;
}
