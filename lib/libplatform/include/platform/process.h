#ifndef PLATFORM_PROCESS_H
#define PLATFORM_PROCESS_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Lock the pid file (path absolute, resolved below the root).  Returns the
 * locked descriptor, or -1 when another process holds the lock or the file
 * cannot be opened.  The lock is a flock(2) lock, so it belongs to the open
 * file and survives daemon(3): the child inherits it when the parent exits.
 */
int pid_lock(const char *path);
/* Write the caller's pid into the file locked by pid_lock(). */
int pid_update(int fd);

/*
 * Print the program's version on stdout.  level counts -v options; xml
 * selects the XML form.  fd is kept for the caller's signature and unused.
 */
void show_daemon_version(int fd, int level, int xml);

/* Program name as the process was started (basename of argv[0]). */
const char *platform_progname(void);

#ifdef __cplusplus
}
#endif

#endif
