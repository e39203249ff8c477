/*
 * Who may use the stores that keel makes.  The main segment and the
 * semaphore set hold the session id word and the locks: a local user who
 * could write them could hand out an id twice or block every client.  So
 * they are root's (mode 0600), or, when the configuration names a group
 * of non-root daemons, that group's too (0660).  keel applies this when
 * it creates them and again at every start, so that objects made by an
 * older keel with a wider mode are narrowed.  The keys and layouts stay.
 *
 * The files stay readable as before; with a group they become writable
 * by it, or its daemons could not open them.
 */
#include <cerrno>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/access.h"
#include "sdb_impl.h"

namespace {

tolvar_access access_now = {0600, (gid_t)-1, ""};
int open_errno;

template <class Perm>
bool narrow(Perm &perm)
{
	mode_t mode = access_now.mode;
	gid_t gid = access_now.gid != (gid_t)-1 ? access_now.gid : perm.gid;
	if ((perm.mode & 0777) == mode && perm.gid == gid)
		return false;
	perm.mode = static_cast<decltype(perm.mode)>(
	    (perm.mode & ~0777) | mode);
	perm.gid = gid;
	return true;
}

} // namespace

void sdb_access_refresh(void)
{
	tolvar_access_get(&access_now);
	if (access_now.unknown_group[0] != '\0')
		sdb_event(3, "LIBSDB_ACCESS_GROUP_UNKNOWN",
		    "LIBSDB_ACCESS_GROUP_UNKNOWN: %s:%d group %s is unknown, "
		    "the session database is for root only", __func__, __LINE__,
		    access_now.unknown_group);
}

mode_t sdb_access_ipc_mode(void)
{
	return access_now.mode;
}

void sdb_access_shm(int id)
{
	struct shmid_ds ds;
	if (shmctl(id, IPC_STAT, &ds) != 0 || !narrow(ds.shm_perm))
		return;
	if (shmctl(id, IPC_SET, &ds) != 0)
		sdb_trace(SDB_TRACE_ERR,
		    "Failed to set access of shared memory: %s",
		    strerror(errno));
}

void sdb_access_sem(int id)
{
	struct semid_ds ds;
	if (semctl(id, 0, IPC_STAT, &ds) != 0 || !narrow(ds.sem_perm))
		return;
	if (semctl(id, 0, IPC_SET, &ds) != 0)
		sdb_trace(SDB_TRACE_ERR,
		    "Failed to set access of semaphore: %s", strerror(errno));
}

void sdb_access_file(int fd)
{
	if (access_now.gid == (gid_t)-1)
		return;
	if (fchown(fd, (uid_t)-1, access_now.gid) != 0 || fchmod(fd, 0664) != 0)
		sdb_trace(SDB_TRACE_ERR, "Failed to set access of a store: %s",
		    strerror(errno));
}

void sdb_note_open_errno(int e)
{
	if (open_errno == 0 || e == EACCES || e == EPERM)
		open_errno = e;
}

extern "C" int sdb_open_errno(void)
{
	return open_errno;
}

extern "C" void sdb_open_errno_clear(void)
{
	open_errno = 0;
}
