/*
 * Process helpers of the storage family: the cached pid, liveness of a
 * lock holder, the fatal stop, and the removal of a hung lock holder.
 */
#include "mmf_impl.h"

#include "platform/chassis.h"
#include "platform/logging.h"
#include "platform/paths.h"
#include "platform/timescale.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <algorithm>
#include <mutex>
#include <pthread.h>
#include <spawn.h>
#include <vector>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

int mmf_errno;
int mmf_fatal_code;
void (*mmf_init_test_hook)(void);

namespace {

std::atomic<pid_t> cached_pid{0};
thread_local pid_t cached_tid;
thread_local pid_t cached_tid_pid;

void refresh_pid_after_fork()
{
	cached_pid.store(static_cast<pid_t>(getpid()));
}

bool fexists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

bool gcore_enabled()
{
	const char *e = getenv("TOLVAR_NO_GCORE");
	return e == nullptr || *e == '\0' || strcmp(e, "0") == 0;
}

/*
 * Write a core of pid with gdb's gcore, once: an existing core is kept.
 * Tests set TOLVAR_NO_GCORE, since a core of a test process is only noise.
 */
void write_core(const std::string &path, pid_t pid, bool watch)
{
	if (!gcore_enabled() || fexists(path))
		return;
	if (access("/usr/bin/gcore", X_OK) != 0)
		return;
	char cmd[512];
	snprintf(cmd, sizeof(cmd), "gcore -c %s %u", path.c_str(),
	    static_cast<unsigned>(pid));
	/* The command line is the one operators know; its chatter goes to
	 * /dev/null through the descriptors, not through the line. */
	posix_spawn_file_actions_t fa;
	posix_spawn_file_actions_init(&fa);
	posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
	posix_spawn_file_actions_adddup2(&fa, 1, 2);
	char sh[] = "/bin/sh", dash_c[] = "-c";
	char *argv[] = {sh, dash_c, cmd, nullptr};
	pid_t child;
	if (posix_spawn(&child, sh, &fa, nullptr, argv, environ) == 0)
		while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
			;
	posix_spawn_file_actions_destroy(&fa);
	if (!watch)
		return;
	/* gcore names its file path.pid; watch until the size settles. */
	std::string written = path + "." + std::to_string(pid);
	off_t last = -1;
	uint64_t deadline = mmf_impl::now_ns() + mmf_impl::scaled_ns(30);
	while (mmf_impl::now_ns() < deadline) {
		struct stat st;
		off_t size = stat(written.c_str(), &st) == 0 ? st.st_size : 0;
		if (size == last)
			break;
		last = size;
		mmf_impl::sleep_ns(mmf_impl::scaled_ns(2));
	}
}

/* When pid started, in clock ticks after boot; 0 when it is gone. */
uint64_t start_time(pid_t pid)
{
	char path[64], buf[1024];
	snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
	int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return 0;
	ssize_t n = read(fd, buf, sizeof(buf) - 1);
	close(fd);
	if (n <= 0)
		return 0;
	buf[n] = '\0';
	/* The name may hold spaces and parentheses: count from the last
	 * ')'.  The start time is the 20th field after it. */
	const char *p = strrchr(buf, ')');
	for (int field = 0; p != nullptr && field < 20; field++)
		p = strchr(p + 1, ' ');
	return p == nullptr ? 0 : strtoull(p + 1, nullptr, 10);
}

/* The holder's start time a marker records; 0 when it records none. */
uint64_t marker_start(const std::string &marker)
{
	unsigned long long started = 0;
	unsigned waiter;
	FILE *f = fopen(marker.c_str(), "r");
	if (f == nullptr)
		return 0;
	if (fscanf(f, "%llu %u", &started, &waiter) != 2)
		started = 0;
	fclose(f);
	return started;
}

} // namespace

namespace mmf_impl {

pid_t gettid_cached()
{
	pid_t pid = mmf_getpid();
	if (cached_tid_pid != pid) {
		cached_tid = static_cast<pid_t>(syscall(SYS_gettid));
		cached_tid_pid = pid;
	}
	return cached_tid;
}

uint64_t now_ns()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull +
	    static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t scaled_ns(double seconds)
{
	return static_cast<uint64_t>(seconds * 1e9 / tolvar_timescale());
}

void sleep_ns(uint64_t ns)
{
	struct timespec ts;
	ts.tv_sec = static_cast<time_t>(ns / 1000000000ull);
	ts.tv_nsec = static_cast<long>(ns % 1000000000ull);
	while (nanosleep(&ts, &ts) != 0 && errno == EINTR)
		;
}

void log_event(const char *tag, const char *func, int line, const char *fmt,
    ...)
{
	char text[512];
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(text, sizeof(text), fmt, ap);
	va_end(ap);
	logging_event(LOG_PRI_INTERNAL_ERR, tag, nullptr, "%s %s:%d %s", tag,
	    func, line, text);
}

std::string resolve(const char *name)
{
	if (name[0] == '/')
		return tolvar::path(name);
	return name;
}

namespace {
std::mutex handles_mu;
std::vector<mmf_t *> handles;

bool same_file(int a, int b)
{
	struct stat sa, sb;
	return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 &&
	    sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}
} // namespace

void handle_register(mmf_t *m)
{
	std::lock_guard<std::mutex> g(handles_mu);
	handles.push_back(m);
	m->registered = true;
}

void handle_unregister(mmf_t *m)
{
	if (!m->registered)
		return;
	std::lock_guard<std::mutex> g(handles_mu);
	handles.erase(std::remove(handles.begin(), handles.end(), m),
	    handles.end());
	m->registered = false;
}

bool this_process_holds(mmf_t *m)
{
	std::lock_guard<std::mutex> g(handles_mu);
	for (mmf_t *h : handles)
		if ((h->locker_cnt.load() > 0 || h->unlock_in_progress_cnt.load() > 0 ||
		    h->locker_thread.load() != 0) && same_file(h->fd, m->fd))
			return true;
	return false;
}

bool holder_alive(mmf_t *m, uint32_t pid)
{
	if (pid == 0 || pid > static_cast<uint32_t>(INT32_MAX) ||
	    !mmf_pid_alive(static_cast<pid_t>(pid)))
		return false;
	if (pid == static_cast<uint32_t>(mmf_getpid()))
		return this_process_holds(m);
	return mmf_pid_maps_file(static_cast<pid_t>(pid), m->fd);
}

} // namespace mmf_impl

using namespace mmf_impl;

extern "C" pid_t mmf_getpid(void)
{
	pid_t pid = cached_pid.load(std::memory_order_relaxed);
	if (pid == 0) {
		static pthread_once_t once = PTHREAD_ONCE_INIT;
		pthread_once(&once, [] {
			pthread_atfork(nullptr, nullptr, refresh_pid_after_fork);
		});
		pid = static_cast<pid_t>(getpid());
		cached_pid.store(pid);
	}
	return pid;
}

/* A process we may not inspect is none of ours: every user of a store
 * runs as the same user and can read the others' maps.  A file we cannot
 * stat is taken as mapped, so that doubt never frees a lock. */
extern "C" bool mmf_pid_maps_file(pid_t pid, int fd)
{
	struct stat st;
	if (fstat(fd, &st) != 0)
		return true;
	char path[64];
	snprintf(path, sizeof(path), "/proc/%d/maps", static_cast<int>(pid));
	FILE *f = fopen(path, "r");
	if (f == nullptr)
		return false;
	char line[512];
	bool maps = false;
	while (!maps && fgets(line, sizeof(line), f) != nullptr) {
		unsigned maj, min;
		unsigned long long ino;
		if (sscanf(line, "%*s %*s %*s %x:%x %llu", &maj, &min, &ino) == 3)
			maps = ino == st.st_ino && maj == major(st.st_dev) &&
			    min == minor(st.st_dev);
	}
	fclose(f);
	return maps;
}

/*
 * A zombie counts as dead: it still has its /proc entry, but it can never
 * release a lock, and its parent may be slow to reap it.
 */
extern "C" bool mmf_pid_alive(pid_t pid)
{
	if (pid <= 0)
		return false;
	char path[64];
	snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
	struct stat st;
	if (stat(path, &st) != 0)
		return false;
	FILE *f = fopen(path, "r");
	if (f == nullptr)
		return errno != ENOENT && errno != ESRCH;
	char line[128];
	bool alive = true;
	while (fgets(line, sizeof(line), f) != nullptr) {
		if (strncmp(line, "State:", 6) == 0) {
			const char *s = line + 6;
			while (*s == ' ' || *s == '\t')
				s++;
			alive = *s != 'Z' && *s != 'X';
			break;
		}
	}
	fclose(f);
	return alive;
}

extern "C" int mmf_mkdir_path(const char *path)
{
	std::string p = resolve(path);
	return tolvar_mkdirs(p.c_str(), 0755);
}

extern "C" uint64_t mmf_lock_backoff(uint32_t spins)
{
	uint64_t ns;
	if (spins <= 50)
		ns = 1000;
	else if (spins <= 9999)
		ns = static_cast<uint64_t>(spins) * 1000;
	else
		ns = 10000000;
	sleep_ns(ns);
	return ns;
}

extern "C" void mmf_kill_lock_holder(const char *tag, pid_t pid)
{
	pid_t self = mmf_getpid();
	char path[256];

	if (pid == self) {
		/* One of our own threads hangs in the lock: nothing else
		 * can free it.  _exit, since exit handlers might take the
		 * very lock that hangs. */
		snprintf(path, sizeof(path), "/var/tmp/%s_lock_holder.pid%u.core",
		    tag, static_cast<unsigned>(pid));
		write_core(tolvar::path(path), pid, false);
		log_event("MMF_LOCK_HOLDER_KILL", __func__, __LINE__,
		    "%s lock held by a thread of this process %u; exiting",
		    tag, static_cast<unsigned>(pid));
		_exit(0);
	}

	/*
	 * The marker is made with O_EXCL, so that of many waiters exactly
	 * one writes cores and kills the holder.  It names the holder by its
	 * start time as well as its pid: a marker left for an earlier
	 * process of the same pid would otherwise spare a later hung holder
	 * for ever.  It is removed once its holder is gone.
	 */
	snprintf(path, sizeof(path), "/var/tmp/%s_lock_holder.pid%u.lock", tag,
	    static_cast<unsigned>(pid));
	std::string marker = tolvar::path(path);
	mmf_mkdir_path("/var/tmp");
	uint64_t started = start_time(pid);
	int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
	    0644);
	if (fd < 0 && errno == EEXIST && marker_start(marker) != started) {
		unlink(marker.c_str());
		fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL |
		    O_CLOEXEC, 0644);
	}
	if (fd < 0)
		return;
	dprintf(fd, "%llu %u\n", static_cast<unsigned long long>(started),
	    static_cast<unsigned>(self));
	close(fd);
	struct marker_removal {
		std::string path;
		pid_t pid;
		~marker_removal()
		{
			if (!mmf_pid_alive(pid))
				unlink(path.c_str());
		}
	} removal{marker, pid};

	log_event("MMF_LOCK_HOLDER_KILL", __func__, __LINE__,
	    "%s lock held too long by pid %u; killing it", tag,
	    static_cast<unsigned>(pid));
	snprintf(path, sizeof(path), "/var/tmp/%s_lock_holder.pid%u.core", tag,
	    static_cast<unsigned>(pid));
	write_core(tolvar::path(path), pid, true);
	snprintf(path, sizeof(path), "/var/tmp/%s_lock_waiter.pid%u.core", tag,
	    static_cast<unsigned>(self));
	write_core(tolvar::path(path), self, false);

	sleep_ns(scaled_ns(1));
	if (!mmf_pid_alive(pid))
		return;
	kill(pid, SIGTERM);
	for (int i = 0; i < 11 && mmf_pid_alive(pid); i++)
		sleep_ns(scaled_ns(1));
	if (!mmf_pid_alive(pid))
		return;
	kill(pid, SIGKILL);
	/* SIGKILL is not refused; the holder is gone within moments. */
	for (int i = 0; i < 1000 && mmf_pid_alive(pid); i++)
		sleep_ns(1000000);
}

extern "C" uint32_t mmf_memory_divisor(uint64_t *bytes)
{
	static std::atomic<int64_t> cached{-1};
	int64_t mem = cached.load();
	if (mem < 0) {
		mem = 0;
		uint64_t v8 = 0;
		size_t len = sizeof(v8);
		if (platform_sysctlbyname("hw.512binstalledmem", &v8, &len) == 0) {
			if (len == 8)
				mem = static_cast<int64_t>(v8 * 512);
			else if (len == 4) {
				uint32_t v4;
				memcpy(&v4, &v8, 4);
				mem = static_cast<int64_t>(v4) * 512;
			}
		}
		cached.store(mem);
	}
	if (bytes != nullptr)
		*bytes = static_cast<uint64_t>(mem);
	const int64_t gib = 1ll << 30;
	if (mem == 0 || mem >= 4 * gib)
		return 1;
	if (mem >= 2 * gib)
		return 8;
	return 64;
}

extern "C" void mmf_detected_fatal_problem(int code, const char *expr,
    const char *file, int line)
{
	mmf_fatal_code = code;
	logging_event(LOG_PRI_INTERNAL_ERR, "MMF_FATAL", nullptr,
	    "MMF_FATAL %s:%d %s", file, line, expr);
	fprintf(stderr, "mmf: %s:%d: assertion \"%s\" failed\n", file, line,
	    expr);
	abort();
}
