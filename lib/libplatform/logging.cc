#include "platform/logging.h"
#include "platform/paths.h"
#include "platform/process.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

logging_func_t registered_logfunc;
int log_level = LOG_INFO;

void append_event_line(int priority, const char *tag,
                       const char *const *attrs, const char *text)
{
	std::string path = tolvar::path(EVENT_LOG_PATH);
	tolvar_mkdirs(path.substr(0, path.rfind('/')).c_str(), 0755);
	int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	if (fd < 0)
		return;
	struct timeval tv;
	gettimeofday(&tv, nullptr);
	struct tm tm;
	gmtime_r(&tv.tv_sec, &tm);
	char stamp[40];
	strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &tm);
	std::string names;
	for (const char *const *a = attrs; a != nullptr && *a != nullptr; a++) {
		if (!names.empty())
			names += ',';
		names += *a;
	}
	std::string line(stamp);
	char buf[64];
	snprintf(buf, sizeof(buf), ".%06ldZ\t", static_cast<long>(tv.tv_usec));
	line += buf;
	line += platform_progname();
	snprintf(buf, sizeof(buf), "[%d]\t0x%x\t", static_cast<int>(getpid()), priority);
	line += buf;
	line += tag != nullptr ? tag : "-";
	line += '\t';
	line += names.empty() ? std::string_view("-") : std::string_view(names);
	line += '\t';
	for (const char *p = text; *p != '\0'; p++)
		line += (*p == '\n' || *p == '\t') ? ' ' : *p;
	line += '\n';
	/* O_APPEND and a single write keep lines of several processes whole. */
	ssize_t w = write(fd, line.data(), line.size());
	(void)w;
	close(fd);
}

void send_to_logfunc(int priority, const char *fmt, ...)
{
	logging_func_t fn = registered_logfunc != nullptr ? registered_logfunc
	                                                  : event_send_vsyslog;
	va_list ap;
	va_start(ap, fmt);
	fn(priority, fmt, ap);
	va_end(ap);
}

} // namespace

extern "C" void logging_set_mode(int mode)
{
	(void)mode;
}

extern "C" void logging_set_level(int level)
{
	log_level = level;
}

extern "C" void logging_register_logfunc(logging_func_t fn)
{
	registered_logfunc = fn;
}

extern "C" void event_send_vsyslog(int priority, const char *fmt, va_list ap)
{
	int level = priority & 0x7;
	if (level > log_level)
		return;
	vsyslog(LOG_DAEMON | level, fmt, ap);
}

extern "C" void logging_eventv(int priority, const char *tag,
                               const char *const *attrs, const char *fmt,
                               va_list ap)
{
	char text[2048];
	vsnprintf(text, sizeof(text), fmt, ap);
	append_event_line(priority, tag, attrs, text);
	send_to_logfunc(priority, "%s", text);
}

extern "C" void logging_event(int priority, const char *tag,
                              const char *const *attrs, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	logging_eventv(priority, tag, attrs, fmt, ap);
	va_end(ap);
}

extern "C" void logging(int priority, const char *fmt, ...)
{
	char text[2048];
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(text, sizeof(text), fmt, ap);
	va_end(ap);
	send_to_logfunc(priority, "%s", text);
}
