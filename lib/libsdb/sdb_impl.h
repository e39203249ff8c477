/*
 * Inside the session database library: tracing, fatal stops, the sizes
 * of the scale classes and the stores' attach and detach steps.
 */
#ifndef SDB_IMPL_H
#define SDB_IMPL_H

#include <atomic>
#include <csignal>
#include <bit>
#include <cstdint>
#include <string>
#include <sys/sem.h>
#include <sys/types.h>

#include "platform/signals.h"
#include "sdb/keel.h"
#include "sdb/sdb.h"
#include "sdb/sdb_db.h"
#include "sdb/sdb_sts.h"

/* Trace through the application's callback (texts without a tag). */
void sdb_trace(int level, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* System event; the format repeats the tag at its head. */
void sdb_event(int priority, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Fatal stops of the long-term store and the secondary tables. */
[[noreturn]] void sdb_lts_assert_fail(const char *expr, const char *file,
    int line);
[[noreturn]] void sdb_secondary_assert_fail(const char *expr,
    const char *file, int line);
#define sdb_lts_assert(e) \
	((e) ? (void)0 : sdb_lts_assert_fail(#e, __FILE__, __LINE__))
#define sdb_secondary_assert(e) \
	((e) ? (void)0 : sdb_secondary_assert_fail(#e, __FILE__, __LINE__))

/* What the scale class sizes. */
struct sdb_scale {
	uint32_t bucket_count;
	uint64_t lts_max_bytes;
	uint64_t lts_grow_bytes;
	uint64_t lts_region_bytes;
	uint32_t lts_max_regions;
	uint64_t sec_max_bytes;
	uint64_t sec_default_bytes;
	uint64_t sec_region_bytes;
	uint32_t sec_max_regions;
	uint32_t sec_initial_bytes;
	uint64_t sts_bytes;
};
const sdb_scale &sdb_scale_get(void);
uint32_t sdb_scale_bucket_count(uint32_t clients, bool big_memory);

/*
 * Access to what keel makes (env/access.cc): refresh reads the
 * configuration; the others narrow an object to root and the group.
 */
void sdb_access_refresh(void);
mode_t sdb_access_ipc_mode(void);
void sdb_access_shm(int id);
void sdb_access_sem(int id);
void sdb_access_file(int fd);
/* Remember why a system call of the open failed; EACCES wins. */
void sdb_note_open_errno(int e);
/*
 * keel found the store at path, open as fd, damaged for the reason what:
 * copy it aside as "<path>.damaged.<time>" and send the event.  0 when
 * the copy is kept and the caller may make the store again; -1 when it
 * could not be kept, and the caller must leave the store alone.
 */
int sdb_store_damaged(int fd, const std::string &path, const char *what);
/* What is wrong with the header of sdb_intf.db, or nullptr when whole. */
const char *sdb_db_info_fault(const sdb_db_info *p, off_t file_size);

/* Stores, in the order the environment opens them. */
int sdb_segment_attach(bool is_keel);
void sdb_segment_detach(void);
int sdb_limit_segments_attach(bool is_keel);
void sdb_limit_segments_detach(void);
void sdb_dyn_var_table_init(void);
void sdb_unit_pools_init(void);
void sdb_unit_pools_forget(void);
int sdb_lts_init(bool is_keel);
void sdb_lts_close(void);
int sdb_mailbox_attach(bool create);
void sdb_mailbox_detach(void);
void sdb_sem_forget(void);
void sdb_db_tables_reset(void);
bool sdb_sem_attached(void);
struct keel_handle *sdb_env_handle(void);

/* Statistics databases. */
extern "C" {
int libstats_init_db(void *env);
int libstats_init_mobile_db(void *env);
int libstats_close_db(void);
int libstats_close_mobile_db(void);
}

/* Waiting for a lock whose holder may be dead. */
uint64_t sdb_lock_backoff(uint32_t attempts);	/* microseconds slept */
bool sdb_pid_alive(uint32_t pid);
bool sdb_lts_owner_alive(uint32_t pid);
void sdb_kill_lock_holder(const char *what, uint32_t pid);
void sdb_lts_note_mapping_failure(void);
void sdb_lts_clear_stale_own(void);
struct mmf *sdb_lts_data(void);
/* The next session id word; without the segment, one above the highest
 * id in the long-term store. */
uint64_t sdb_lts_next_session_id(void);
int sdb_lts_each_head(void (*fn)(void *arg, uint64_t sid), void *arg);
uint32_t sdb_thread_id(void);
uint64_t sdb_now_usecs(void);

/* Shared words. */
static_assert(std::endian::native == std::endian::little,
    "u64 pairs of sdb.head are stored low word first");
inline std::atomic_ref<uint32_t> sdb_word(uint32_t &w)
{
	return std::atomic_ref<uint32_t>(w);
}
inline void sdb_count(uint32_t &w)
{
	sdb_word(w).fetch_add(1, std::memory_order_relaxed);
}
/* A u64 counter on a 4-byte boundary: add to the low word, carry into
 * the high one.  A reader may see a torn value for a moment. */
inline void sdb_count64(uint32_t pair[2], uint64_t v)
{
	uint32_t lo = (uint32_t)v, hi = (uint32_t)(v >> 32);
	uint32_t old = sdb_word(pair[0]).fetch_add(lo, std::memory_order_relaxed);
	if ((uint32_t)(old + lo) < old)
		hi++;
	if (hi != 0)
		sdb_word(pair[1]).fetch_add(hi, std::memory_order_relaxed);
}

/* Test seam: the semop used by sdb_sem_lock and sdb_sem_unlock. */
using sdb_semop_fn = int (*)(int semid, struct sembuf *ops, size_t nops);
void sdb_sem_set_semop(sdb_semop_fn fn);

/* Names of the daemons that open the full environment. */
bool sdb_program_in_daemon_list(const char *name);
std::string sdb_store_path(const char *abs);

/* Blocks the signals whose handlers might use the database. */
class client_signal_block {
public:
	explicit client_signal_block(bool is_keel) : active_(!is_keel)
	{
		if (!active_)
			return;
		sigset_t set;
		sigemptyset(&set);
		for (int s : {SIGALRM, SIGINFO, SIGHUP, SIGINT, SIGPIPE, SIGTERM,
		    SIGUSR1, SIGUSR2})
			sigaddset(&set, s);
		pthread_sigmask(SIG_BLOCK, &set, &old_);
	}
	~client_signal_block()
	{
		if (active_)
			pthread_sigmask(SIG_SETMASK, &old_, nullptr);
	}
	client_signal_block(const client_signal_block &) = delete;
	client_signal_block &operator=(const client_signal_block &) = delete;

private:
	bool active_;
	sigset_t old_;
};


int sdb_db_close(void);

#endif
