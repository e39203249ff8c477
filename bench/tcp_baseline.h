/*
 * The baseline of the link benchmarks: a plain TCP pair on loopback, a
 * forked writer and this process reading, moving the same bytes as the run
 * it is compared with.
 */
#ifndef BENCH_TCP_BASELINE_H
#define BENCH_TCP_BASELINE_H

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/*
 * Seconds from the first byte read to the last, for bytes written in writes
 * of chunk bytes; 0 when the pair could not be set up.
 */
inline double
tcp_pair_seconds(uint64_t bytes, size_t chunk)
{
	using clock_type = std::chrono::steady_clock;
	int lfd = socket(AF_INET, SOCK_STREAM, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	socklen_t len = sizeof(sin);
	if (lfd < 0 ||
	    bind(lfd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)) != 0 ||
	    listen(lfd, 1) != 0 ||
	    getsockname(lfd, reinterpret_cast<struct sockaddr *>(&sin), &len) != 0)
		return 0;
	pid_t pid = fork();
	if (pid == 0) {
		int fd = socket(AF_INET, SOCK_STREAM, 0);
		if (connect(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)) != 0)
			_exit(1);
		std::vector<uint8_t> buf(chunk, 0x5a);
		for (uint64_t sent = 0; sent < bytes;) {
			ssize_t n = write(fd, buf.data(), std::min<uint64_t>(chunk, bytes - sent));
			if (n <= 0)
				_exit(1);
			sent += static_cast<uint64_t>(n);
		}
		close(fd);
		_exit(0);
	}
	int fd = accept(lfd, nullptr, nullptr);
	close(lfd);
	std::vector<uint8_t> buf(1 << 20);
	uint64_t got = 0;
	clock_type::time_point start;
	while (fd >= 0 && got < bytes) {
		ssize_t n = read(fd, buf.data(), buf.size());
		if (n <= 0)
			break;
		if (got == 0)
			start = clock_type::now();
		got += static_cast<uint64_t>(n);
	}
	double secs = std::chrono::duration<double>(clock_type::now() - start).count();
	if (fd >= 0)
		close(fd);
	waitpid(pid, nullptr, 0);
	return got == bytes ? secs : 0;
}

#endif
