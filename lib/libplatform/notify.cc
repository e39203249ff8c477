#include "platform/notify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" int platform_notify(const char *state)
{
	const char *path = getenv("NOTIFY_SOCKET");
	struct sockaddr_un addr = {};
	size_t len;

	if (path == nullptr || (path[0] != '/' && path[0] != '@'))
		return -1;
	len = strlen(path);
	if (len >= sizeof(addr.sun_path))
		return -1;
	addr.sun_family = AF_UNIX;
	memcpy(addr.sun_path, path, len);
	if (path[0] == '@')
		addr.sun_path[0] = '\0';	/* an abstract socket */
	int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return -1;
	ssize_t n = sendto(fd, state, strlen(state), MSG_NOSIGNAL,
	    reinterpret_cast<struct sockaddr *>(&addr),
	    static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len));
	close(fd);
	return n < 0 ? -1 : 0;
}
