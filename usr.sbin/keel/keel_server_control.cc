/*
 * The test control: one command line per connection, read whole on
 * keel's event loop (commands are short and come from a local test).
 */
#include "keel_server_control.h"
#include "keel_server_internal.h"

#include <platform/logging.h>
#include <platform/paths.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

int control_fd = -1;
evConnID control_id;
evContext control_ctx;

bool
parse_int(const std::string &s, long *out)
{
	char *end = nullptr;
	errno = 0;
	long v = strtol(s.c_str(), &end, 0);
	if (s.empty() || *end != '\0' || errno != 0)
		return false;
	*out = v;
	return true;
}

bool
parse_hex(const std::string &s, std::vector<uint8_t> *out)
{
	if (s.size() % 2 != 0)
		return false;
	for (size_t i = 0; i < s.size(); i += 2) {
		long v;
		std::string byte = "0x" + s.substr(i, 2);
		if (!parse_int(byte, &v))
			return false;
		out->push_back(static_cast<uint8_t>(v));
	}
	return true;
}

std::string
run(const std::string &cmd, const std::string &arg)
{
	long n;

	if (cmd == "status" && arg == "normal") {
		keel_server_test.answer_forced = false;
	} else if (cmd == "status" && parse_int(arg, &n)) {
		keel_server_test.answer_forced = true;
		keel_server_test.answer_status = static_cast<int32_t>(n);
	} else if (cmd == "silent" && (arg == "on" || arg == "off")) {
		keel_server_test.silent = arg == "on";
	} else if (cmd == "drop") {
		keel_server_drop_all();
	} else if (cmd == "issu" && parse_int(arg, &n) && n >= 0) {
		keel_server_chassis_issu(static_cast<uint32_t>(n));
	} else if (cmd == "mastership") {
		(void)keel_server_mastership_check();
	} else if (cmd == "send") {
		std::vector<uint8_t> bytes;
		if (!parse_hex(arg, &bytes) || bytes.empty())
			return "error: bad hex\n";
		for (keel_conn *c = keel_server_clients(), *next; c != nullptr;
		    c = next) {
			next = c->next;
			if (keel_server_send(c, bytes.data(), bytes.size()) != 0)
				keel_server_drop(c);
		}
	} else if (cmd == "clients") {
		std::string out;
		for (keel_conn *c = keel_server_clients(); c != nullptr;
		    c = c->next)
			if (c->registered)
				out += c->name + " " + std::to_string(c->pid) +
				    "\n";
		return out + "ok\n";
	} else
		return "error: unknown command\n";
	return "ok\n";
}

void
serve(int fd)
{
	char line[1024];
	size_t have = 0;
	struct pollfd p = {fd, POLLIN, 0};

	/* The test writes its line at once; a second is more than enough. */
	while (have < sizeof(line) - 1 && poll(&p, 1, 1000) > 0) {
		ssize_t n = read(fd, line + have, sizeof(line) - 1 - have);
		if (n <= 0)
			break;
		have += static_cast<size_t>(n);
		if (memchr(line, '\n', have) != nullptr)
			break;
	}
	line[have] = '\0';
	std::string text(line, strcspn(line, "\r\n"));
	size_t sp = text.find(' ');
	std::string cmd = text.substr(0, sp);
	std::string arg = sp == std::string::npos ? "" : text.substr(sp + 1);
	keel_server_log(LOG_PRI_INTERNAL_INFO, "Test control: %s",
	    text.c_str());
	std::string reply = run(cmd, arg);
	ssize_t w = send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
	(void)w;
	close(fd);
}

void
on_control(evContext, void *, int fd, const void *, int, const void *, int)
{
	if (fd >= 0)
		serve(fd);
}

std::string
control_path(void)
{
	return tolvar::path(KEEL_TEST_CONTROL_PATH);
}

} // namespace

int
keel_server_control_init(evContext ctx)
{
	struct sockaddr_un sun;
	std::string path = control_path();

	if (path.size() >= sizeof(sun.sun_path)) {
		errno = ENAMETOOLONG;
		return -1;
	}
	(void)unlink(path.c_str());
	control_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (control_fd < 0)
		return -1;
	memset(&sun, 0, sizeof(sun));
	sun.sun_family = AF_UNIX;
	memcpy(sun.sun_path, path.c_str(), path.size() + 1);
	if (bind(control_fd, reinterpret_cast<struct sockaddr *>(&sun),
	    sizeof(sun)) != 0 || chmod(path.c_str(), 0600) != 0 ||
	    __evListen(ctx, control_fd, 8, on_control, nullptr,
	    &control_id) != 0) {
		int e = errno;
		close(control_fd);
		control_fd = -1;
		errno = e;
		return -1;
	}
	control_ctx = ctx;
	keel_server_log(LOG_PRI_INTERNAL_INFO, "Test control on %s",
	    path.c_str());
	return 0;
}

void
keel_server_control_shutdown(void)
{
	if (control_fd < 0)
		return;
	(void)__evCancelConn(control_ctx, control_id);
	close(control_fd);
	control_fd = -1;
	(void)unlink(control_path().c_str());
}
