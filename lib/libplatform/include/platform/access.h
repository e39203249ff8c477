/*
 * Who may use the shared objects and the sockets of the session database
 * and of the daemons: root only, and, when the configuration names one,
 * a group of non-root daemons:
 *
 *   set system session-database group <name or number>
 *
 * Without the statement the mode is 0600 and the group stays as created;
 * with it the mode is 0660 and the group is the one named.
 */
#ifndef PLATFORM_ACCESS_H
#define PLATFORM_ACCESS_H

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tolvar_access {
	mode_t mode;		/* 0600, or 0660 with a group */
	gid_t gid;		/* (gid_t)-1 without a group */
	/* A group that is configured but unknown: root only, and this
	 * holds its name so that the caller can say so. */
	char unknown_group[64];
};

/* Read the configuration now; never fails, the default is root only. */
void tolvar_access_get(struct tolvar_access *out);

/*
 * bind() a unix socket so that it never exists with a wider mode than
 * out's, then give it out's group and mode.  0, or -1 with errno.
 */
int tolvar_access_bind(int fd, const struct sockaddr *sa, socklen_t len,
                       const char *path, const struct tolvar_access *access);

#ifdef __cplusplus
}
#endif

#endif
