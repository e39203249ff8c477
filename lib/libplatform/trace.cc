#include "platform/trace.h"
#include "platform/paths.h"
#include "platform/process.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>

struct daemon_trace_file {
	int fd;
};

extern "C" daemon_trace_file_t *daemon_trace_initialize(const char *path)
{
	std::string p = tolvar::path(path);
	std::string dir = p.substr(0, p.rfind('/'));
	if (!dir.empty())
		tolvar_mkdirs(dir.c_str(), 0755);
	int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	if (fd < 0)
		return nullptr;
	return new daemon_trace_file{fd};
}

extern "C" void daemon_trace_close(daemon_trace_file_t *tf)
{
	if (tf == nullptr)
		return;
	close(tf->fd);
	delete tf;
}

extern "C" void daemon_tracev(daemon_trace_file_t *tf, int category, int flags,
                              const char *fmt, va_list ap)
{
	(void)flags;
	if (tf == nullptr)
		return;
	char line[4096];
	struct timeval tv;
	gettimeofday(&tv, nullptr);
	struct tm tm;
	localtime_r(&tv.tv_sec, &tm);
	int n = static_cast<int>(strftime(line, sizeof(line), "%b %e %H:%M:%S", &tm));
	n += snprintf(line + n, sizeof(line) - n, ".%06ld %s[%d] %d ",
	              static_cast<long>(tv.tv_usec), platform_progname(),
	              static_cast<int>(getpid()), category);
	int body = vsnprintf(line + n, sizeof(line) - n - 1, fmt, ap);
	if (body < 0)
		body = 0;
	n += body;
	if (n > static_cast<int>(sizeof(line)) - 2)
		n = static_cast<int>(sizeof(line)) - 2;
	line[n++] = '\n';
	/* One write per line, so that lines of concurrent writers never mix. */
	ssize_t w = write(tf->fd, line, n);
	(void)w;
}

extern "C" void daemon_trace(daemon_trace_file_t *tf, int category, int flags,
                             const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	daemon_tracev(tf, category, flags, fmt, ap);
	va_end(ap);
}
