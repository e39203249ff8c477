#include "platform/process.h"
#include "platform/paths.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#ifndef TOLVAR_VERSION
#define TOLVAR_VERSION "0.1.0"
#endif

extern "C" const char *platform_progname(void)
{
	return program_invocation_short_name;
}

extern "C" int pid_lock(const char *path)
{
	std::string p = tolvar::path(path);
	tolvar_mkdirs(p.substr(0, p.rfind('/')).c_str(), 0755);
	int fd = open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	if (fd < 0)
		return -1;
	/* flock, not fcntl: the lock stays with the open file across fork. */
	if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
		close(fd);
		return -1;
	}
	return fd;
}

extern "C" int pid_update(int fd)
{
	char buf[32];
	int n = snprintf(buf, sizeof(buf), "%d\n", static_cast<int>(getpid()));
	if (ftruncate(fd, 0) != 0)
		return -1;
	if (pwrite(fd, buf, n, 0) != n)
		return -1;
	return 0;
}

extern "C" void show_daemon_version(int fd, int level, int xml)
{
	(void)fd;
	const char *name = platform_progname();
	if (xml) {
		printf("<software-information>\n"
		       "<package-information>\n"
		       "<name>%s</name>\n"
		       "<comment>%s release %s</comment>\n"
		       "</package-information>\n"
		       "</software-information>\n",
		       name, name, TOLVAR_VERSION);
	} else {
		printf("%s release %s\n", name, TOLVAR_VERSION);
		if (level > 1)
			printf("built with %s on %s %s\n", __VERSION__, __DATE__, __TIME__);
	}
	fflush(stdout);
}
