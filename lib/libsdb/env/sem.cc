/*
 * The semaphore set of the session database: four semaphores under the
 * fixed key 8888.  0 guards the session id word, 1 the unit pools, 2 the
 * secondary tables (five tokens: a reader takes one, a writer all five),
 * 3 is never taken.
 *
 * Every operation carries SEM_UNDO, so the kernel gives back whatever a
 * dying process held: no holder's death can leave a semaphore taken.
 */
#include <cerrno>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "platform/logging.h"
#include "sdb_impl.h"

namespace {

int sem_id = -1;
sdb_semop_fn semop_fn = [](int id, struct sembuf *ops, size_t n) {
	return semop(id, ops, n);
};
constexpr int max_tries = 1000;
constexpr unsigned short initial_value[SDB_SEM_COUNT] = {1, 1, SDB_SEM_READERS, 1};

/*
 * Semaphore 3 is set last and never taken, so 0 there means that the
 * creator died between semget and the last SETVAL: the set was never
 * made ready, and nobody can hold any of it.
 */
bool set_is_ready(int id)
{
	return semctl(id, SDB_SEM_SPARE, GETVAL) > 0;
}

int set_initial_values(int id)
{
	for (int i = 0; i < SDB_SEM_COUNT; i++) {
		if (semctl(id, i, SETVAL, (int)initial_value[i]) != 0) {
			sdb_trace(SDB_TRACE_ERR, "Failed to reset semaphore");
			return SDB_ERR_FATAL;
		}
	}
	return 0;
}

short op_value(int number, bool write)
{
	return (number == SDB_SEM_SECONDARY && write) ? SDB_SEM_READERS : 1;
}

/* One semop, repeated on EINTR; tries counts the calls made. */
int sem_op(int number, short value, int *tries, int *last_errno)
{
	struct sembuf op = {(unsigned short)number, value, SEM_UNDO};
	for (*tries = 1;; (*tries)++) {
		if (semop_fn(sem_id, &op, 1) == 0)
			return 0;
		*last_errno = errno;
		if (errno != EINTR || *tries >= max_tries)
			return -1;
	}
}

} // namespace

void sdb_sem_set_semop(sdb_semop_fn fn)
{
	semop_fn = fn;
}

bool sdb_sem_attached(void)
{
	return sem_id >= 0;
}

void sdb_sem_forget(void)
{
	sem_id = -1;
}

extern "C" int sdb_sem_init(bool is_keel)
{
	if (sem_id >= 0)
		return 0;
	/* 0600 asks for alter and read: a user without them fails here. */
	int id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0600);
	if (id >= 0) {
		sdb_trace(SDB_TRACE_INFO, "semaphore exist");
		if (is_keel)
			sdb_access_sem(id);
		if (!set_is_ready(id)) {
			if (!is_keel) {
				sdb_trace(SDB_TRACE_ERR, "Failed to get semaphore");
				return SDB_ERR_FATAL;
			}
			if (set_initial_values(id) != 0)
				return SDB_ERR_FATAL;
		}
		sem_id = id;
		return 0;
	}
	sdb_note_open_errno(errno);
	if (!is_keel) {
		sdb_trace(SDB_TRACE_ERR, "Failed to get semaphore");
		return SDB_ERR_FATAL;
	}
	sdb_trace(SDB_TRACE_INFO, "semaphore does not exist");
	id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, IPC_CREAT |
	    sdb_access_ipc_mode());
	if (id < 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to init semaphore");
		return SDB_ERR_FATAL;
	}
	sdb_access_sem(id);
	if (!set_is_ready(id) && set_initial_values(id) != 0)
		return SDB_ERR_FATAL;
	sem_id = id;
	return 0;
}

extern "C" int sdb_sem_lock(int number, bool write)
{
	int tries = 0, err = 0;
	if (sem_id < 0 || number < 0 || number >= SDB_SEM_COUNT) {
		sdb_trace(SDB_TRACE_ERR,
		    "SDB failed to acquire lock id %d, cnt %d, err %s", number,
		    0, strerror(EINVAL));
		return SDB_ERR_DEADLOCK;
	}
	if (sem_op(number, (short)-op_value(number, write), &tries, &err) != 0) {
		sdb_trace(SDB_TRACE_ERR,
		    "SDB failed to acquire lock id %d, cnt %d, err %s", number,
		    tries - 1, strerror(err));
		return SDB_ERR_DEADLOCK;
	}
	if (tries > 1)
		sdb_trace(SDB_TRACE_INFO, "INFO: SDB acquire lock cnt %d",
		    tries - 1);
	return 0;
}

extern "C" int sdb_sem_unlock(int number, bool write)
{
	int tries = 0, err = EINVAL;
	if (sem_id >= 0 && number >= 0 && number < SDB_SEM_COUNT &&
	    sem_op(number, op_value(number, write), &tries, &err) == 0) {
		if (tries > 1)
			sdb_trace(SDB_TRACE_INFO, "INFO: SDB release lock cnt %d",
			    tries - 1);
		return 0;
	}
	int cnt = tries > 0 ? tries - 1 : 0;
	sdb_trace(SDB_TRACE_ERR, "SDB failed to release lock id %d, cnt %d, err %s",
	    number, cnt, strerror(err));
	sdb_event(3, "LIBSDB_SDB_LOCK_RELEASE_FAILED",
	    "LIBSDB_SDB_LOCK_RELEASE_FAILED: SDB failed to release lock id %d, "
	    "count %d, errno:%d err %s", number, cnt, err, strerror(err));
	if (err == EINTR || err == EDEADLK || err == ENOSPC)
		return SDB_ERR_DEADLOCK;
	return SDB_ERR_FATAL;
}
