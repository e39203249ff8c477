#include "platform/access.h"
#include "platform/dax.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

extern "C" void tolvar_access_get(struct tolvar_access *out)
{
	out->mode = 0600;
	out->gid = (gid_t)-1;
	out->unknown_group[0] = '\0';

	static const char *const path[] = {"system", "session-database",
	                                   "group", nullptr};
	char name[64];
	if (!dax_config_value(path, name, sizeof(name)))
		return;
	char *end;
	errno = 0;
	unsigned long n = strtoul(name, &end, 10);
	if (errno == 0 && end != name && *end == '\0' && n < (gid_t)-1) {
		out->gid = (gid_t)n;
	} else {
		std::vector<char> buf(16384);
		struct group gr, *found = nullptr;
		if (getgrnam_r(name, &gr, buf.data(), buf.size(), &found) != 0 ||
		    found == nullptr) {
			snprintf(out->unknown_group, sizeof(out->unknown_group),
			         "%s", name);
			return;
		}
		out->gid = found->gr_gid;
	}
	out->mode = 0660;
}

extern "C" int tolvar_access_bind(int fd, const struct sockaddr *sa,
                                  socklen_t len, const char *path,
                                  const struct tolvar_access *access)
{
	/* umask is the process's: only the single-threaded start binds. */
	mode_t old = umask(0177);
	int rc = bind(fd, sa, len);
	int err = errno;
	umask(old);
	if (rc != 0) {
		errno = err;
		return -1;
	}
	if (access->gid != (gid_t)-1 && chown(path, (uid_t)-1, access->gid) != 0)
		return -1;
	return chmod(path, access->mode);
}
