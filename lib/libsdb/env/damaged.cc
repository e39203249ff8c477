/*
 * A store that keel finds damaged is made again, never silently and never
 * at the price of its bytes: they are copied aside first, as
 * "<name>.damaged.<time>" beside it, for whoever looks into the damage.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sdb_impl.h"

namespace {

int create_aside(const std::string &path, std::string *name)
{
	char stamp[32];
	time_t now = time(nullptr);
	struct tm tm;
	gmtime_r(&now, &tm);
	strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", &tm);
	for (int n = 0; n < 100; n++) {
		*name = path + ".damaged." + stamp;
		if (n > 0)
			*name += "." + std::to_string(n);
		int fd = open(name->c_str(), O_WRONLY | O_CREAT | O_EXCL |
		    O_CLOEXEC, 0600);
		if (fd >= 0 || errno != EEXIST)
			return fd;
	}
	return -1;
}

bool copy_all(int from, int to)
{
	char buf[65536];
	for (off_t off = 0;;) {
		ssize_t n = pread(from, buf, sizeof(buf), off);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0)
			return false;
		if (n == 0)
			return true;
		for (ssize_t done = 0; done < n;) {
			ssize_t w = write(to, buf + done, (size_t)(n - done));
			if (w < 0 && errno == EINTR)
				continue;
			if (w <= 0)
				return false;
			done += w;
		}
		off += n;
	}
}

} // namespace

int sdb_store_damaged(int fd, const std::string &path, const char *what)
{
	std::string aside;
	int out = create_aside(path, &aside);
	bool kept = out >= 0 && copy_all(fd, out) && fsync(out) == 0;
	int err = errno;
	if (out >= 0 && close(out) != 0)
		kept = false;
	if (!kept) {
		if (out >= 0)
			unlink(aside.c_str());
		sdb_trace(SDB_TRACE_ERR, "%s is damaged (%s) and could not be "
		    "kept aside: %s", path.c_str(), what, strerror(err));
		sdb_event(2, "LIBSDB_STORE_DAMAGED",
		    "LIBSDB_STORE_DAMAGED: %s:%d %s is damaged (%s), left "
		    "as it is: no copy could be kept: %s", __func__, __LINE__,
		    path.c_str(), what, strerror(err));
		return -1;
	}
	sdb_trace(SDB_TRACE_ERR, "%s is damaged (%s), kept as %s, made again",
	    path.c_str(), what, aside.c_str());
	sdb_event(3, "LIBSDB_STORE_DAMAGED",
	    "LIBSDB_STORE_DAMAGED: %s:%d %s is damaged (%s), kept as %s and "
	    "made again", __func__, __LINE__, path.c_str(), what,
	    aside.c_str());
	return 0;
}
