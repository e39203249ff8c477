/*
 * sdbctl barrier [-t seconds] [word ...]: use tolvard as a barrier.
 *
 * Connects to tolvard's local socket, registers as "sdbctl", sends one
 * ACK whose body is the given 32-bit words and waits for the daemon to
 * send the same bytes back.  tolvard answers once the standby has
 * acknowledged everything sent before, or at once when there is no
 * standby to wait for.  The echo must match byte for byte.
 *
 * The echo cannot say which way the barrier ended; tolvard's status file
 * can.  It is read before the request and after the answer: no link
 * before means the answer came at once; a link lost, or a barrier counted
 * as lost, in between means the standby never acknowledged.  tolvard
 * writes the file before it answers, so the second read sees the change.
 */
#include "engine.h"
#include "sdbctl.h"
#include "tolvard_local.h"

#include <platform/paths.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t max_barrier_bytes = TOLVARD_LOCAL_SOCKBUF;
static_assert(max_barrier_bytes + sizeof(tolvard_reg_msg) <=
    TOLVARD_LOCAL_RECV_MAX);

/* Words of the body: decimal, 0x hexadecimal or 0 octal, at most 32 bits. */
bool parse_words(int argc, char **argv, std::vector<uint32_t> &words)
{
	for (int i = 0; i < argc; i++) {
		char *end;
		errno = 0;
		unsigned long long v = strtoull(argv[i], &end, 0);
		if (errno != 0 || end == argv[i] || *end != '\0' ||
		    argv[i][0] == '-' || v > UINT32_MAX) {
			fprintf(stderr, "sdbctl: not a 32-bit word: \"%s\"\n",
			    argv[i]);
			return false;
		}
		words.push_back(static_cast<uint32_t>(v));
	}
	return true;
}

int connect_server(void)
{
	std::string path = tolvar::path(TOLVARD_SERVER_PATH);
	struct sockaddr_un sun = {};

	if (path.size() >= sizeof(sun.sun_path)) {
		fprintf(stderr, "sdbctl: socket path too long: %s\n", path.c_str());
		return -1;
	}
	sun.sun_family = AF_UNIX;
	memcpy(sun.sun_path, path.c_str(), path.size() + 1);
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr *>(&sun),
	    sizeof(sun)) != 0) {
		fprintf(stderr, "sdbctl: cannot connect to %s: %s\n", path.c_str(),
		    strerror(errno));
		if (fd >= 0)
			close(fd);
		return -1;
	}
	return fd;
}

bool write_all(int fd, const uint8_t *p, size_t n)
{
	while (n > 0) {
		ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
		if (w < 0 && errno == EINTR)
			continue;
		if (w <= 0)
			return false;
		p += w;
		n -= static_cast<size_t>(w);
	}
	return true;
}

/*
 * Read exactly want bytes, or until the peer closes or the deadline
 * passes (timeout_ms < 0 waits for ever).  Returns the bytes read.
 */
size_t read_echo(int fd, uint8_t *buf, size_t want, int timeout_ms)
{
	size_t got = 0;

	while (got < want) {
		struct pollfd p = {fd, POLLIN, 0};
		int rc = poll(&p, 1, timeout_ms);
		if (rc < 0 && errno == EINTR)
			continue;
		if (rc <= 0)
			break;
		ssize_t r = recv(fd, buf + got, want - got, 0);
		if (r < 0 && errno == EINTR)
			continue;
		if (r <= 0)
			break;
		got += static_cast<size_t>(r);
	}
	return got;
}

std::vector<uint8_t> make_messages(const std::vector<uint32_t> &words)
{
	tolvard_reg_msg reg = {};
	reg.type = TOLVARD_LOCAL_REG;
	snprintf(reg.name, sizeof(reg.name), "sdbctl");
	reg.pid = static_cast<uint32_t>(getpid());
	reg.flags = TOLVARD_REG_UP;
	reg.status = 0;

	tolvard_ack_msg ack = {TOLVARD_LOCAL_ACK,
	    static_cast<uint32_t>(words.size())};
	std::vector<uint8_t> out(sizeof(reg) + tolvard_ack_size(ack.words));
	memcpy(out.data(), &reg, sizeof(reg));
	memcpy(out.data() + sizeof(reg), &ack, sizeof(ack));
	if (!words.empty())
		memcpy(out.data() + sizeof(reg) + sizeof(ack), words.data(),
		    words.size() * sizeof(uint32_t));
	return out;
}

long counter(const tolvard_view &v, const char *key)
{
	return strtol(v.get(key).c_str(), nullptr, 10);
}

/* Which of the three ways the answer came; see the top of the file. */
int outcome(const tolvard_view &before, const tolvard_view &after,
    size_t bytes, size_t words)
{
	if (!before.running || before.get("link") != "up" ||
	    before.get("database") != "open" ||
	    before.get("graceful_switchover") != "enabled") {
		fprintf(stderr, "sdbctl barrier: no standby connected: answered "
		    "at once\n");
		return SDBCTL_EXIT_NO_STANDBY;
	}
	if (!after.running || after.get("pid") != before.get("pid") ||
	    counter(after, "conn_lost") != counter(before, "conn_lost") ||
	    counter(after, "barriers_lost") != counter(before, "barriers_lost")) {
		fprintf(stderr, "sdbctl barrier: link lost before the standby "
		    "acknowledged\n");
		return SDBCTL_EXIT_LINK_LOST;
	}
	printf("barrier: acknowledged by the standby, %zu bytes echoed, "
	    "%zu word(s)\n", bytes, words);
	return 0;
}

int usage(void)
{
	fprintf(stderr, "usage: sdbctl barrier [-t seconds] [word ...]\n");
	return SDBCTL_EXIT_USAGE;
}

} // namespace

int sdbctl_barrier(int argc, char **argv)
{
	int timeout_ms = -1;
	int ch;

	optind = 1;
	while ((ch = getopt(argc, argv, "t:")) != -1) {
		if (ch != 't')
			return usage();
		char *end;
		long secs = strtol(optarg, &end, 10);
		if (end == optarg || *end != '\0' || secs < 0 || secs > INT_MAX / 1000)
			return usage();
		timeout_ms = static_cast<int>(secs * 1000);
	}
	std::vector<uint32_t> words;
	if (!parse_words(argc - optind, argv + optind, words))
		return SDBCTL_EXIT_USAGE;
	/*
	 * tolvard takes a message in one read and echoes it in one send of
	 * its socket buffer: a bigger barrier would be torn on the way in
	 * or could never be echoed whole.
	 */
	size_t size = static_cast<size_t>(
	    tolvard_ack_size(static_cast<uint32_t>(words.size())));
	if (size > max_barrier_bytes) {
		fprintf(stderr, "sdbctl: a barrier of %zu bytes is larger than "
		    "tolvard's socket buffer of %d bytes: at most %zu words\n",
		    size, TOLVARD_LOCAL_SOCKBUF,
		    (max_barrier_bytes - sizeof(tolvard_ack_msg)) /
		    sizeof(uint32_t));
		return SDBCTL_EXIT_USAGE;
	}

	tolvard_view before = sdbctl_tolvard_view();
	int fd = connect_server();
	if (fd < 0)
		return SDBCTL_EXIT_FAIL;
	std::vector<uint8_t> out = make_messages(words);
	if (!write_all(fd, out.data(), out.size())) {
		fprintf(stderr, "sdbctl: cannot send to tolvard: %s\n",
		    strerror(errno));
		close(fd);
		return SDBCTL_EXIT_FAIL;
	}

	const uint8_t *ack = out.data() + sizeof(tolvard_reg_msg);
	size_t want = out.size() - sizeof(tolvard_reg_msg);
	std::vector<uint8_t> echo(want + 1);
	size_t got = read_echo(fd, echo.data(), want, timeout_ms);
	close(fd);
	if (got < want) {
		fprintf(stderr, "sdbctl barrier: broken echo, %zu of %zu bytes "
		    "before %s\n", got, want, timeout_ms >= 0
		    ? "the connection closed or the time ran out"
		    : "the connection closed");
		return SDBCTL_EXIT_FAIL;
	}
	for (size_t i = 0; i < want; i++) {
		if (echo[i] != ack[i]) {
			fprintf(stderr, "sdbctl barrier: echo differs at byte "
			    "%zu\n", i);
			return SDBCTL_EXIT_FAIL;
		}
	}
	return outcome(before, sdbctl_tolvard_view(), want, words.size());
}
