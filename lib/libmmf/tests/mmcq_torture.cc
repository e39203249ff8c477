/*
 * mmcq-torture: one side of a mapped queue in a process of its own, for
 * the process tests.  Every command opens NAME with the same small
 * geometry, so that the ring wraps and grows often.
 *
 *   send NAME COUNT SEED     send COUNT numbered, checksummed messages of
 *                            random length; print "sent SEQ" after each;
 *                            Q_FULL is retried
 *   recv NAME LOG            receive on the event loop for ever; append
 *                            "ID SEQ ok" (or "ID SEQ torn") per message
 *   drain NAME LOG           read what is there, then exit
 *   fill NAME                send until Q_FULL; print the status
 */
#include "mmf/mmcq.h"
#include "mmf/mmf.h"
#include "platform/ev.h"

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <unistd.h>

namespace {

constexpr uint32_t kMaxMsg = 256;
constexpr uint32_t kDefault = 64 << 10;
constexpr uint32_t kRegion = 64 << 10;	/* grows 64 KiB at a time */
constexpr uint32_t kMax = 1 << 20;

struct stamp {
	uint32_t id, seq, len, sum;
};

uint32_t checksum(const uint8_t *p, uint32_t len)
{
	uint32_t h = 2166136261u;
	for (uint32_t i = 0; i < len; i++)
		if (i < 12 || i >= 16)
			h = (h ^ p[i]) * 16777619u;
	return h;
}

uint32_t fill(uint8_t *buf, uint32_t id, uint32_t seq, uint32_t len)
{
	stamp s{id, seq, len, 0};
	memcpy(buf, &s, sizeof(s));
	for (uint32_t i = sizeof(s); i < len; i++)
		buf[i] = static_cast<uint8_t>(id * 31 + seq * 7 + i);
	s.sum = checksum(buf, len);
	memcpy(buf + 12, &s.sum, 4);
	return len;
}

mmcq_t *open_sender(const char *name, evContext *ev)
{
	mmcq_t *q = mmcq_sender_create(name, ev, kMaxMsg, kDefault, kMax,
	    kRegion, 0, nullptr, nullptr);
	if (q == nullptr) {
		fprintf(stderr, "mmcq-torture: cannot open %s\n", name);
		exit(1);
	}
	return q;
}

int log_fd = -1;

void log_message(const uint8_t *buf, uint32_t len)
{
	char line[96];
	int n;
	stamp s{};
	if (len < sizeof(s)) {
		n = snprintf(line, sizeof(line), "0 0 torn\n");
	} else {
		memcpy(&s, buf, sizeof(s));
		bool ok = s.len == len && checksum(buf, len) == s.sum;
		n = snprintf(line, sizeof(line), "%u %u %s\n", s.id, s.seq,
		    ok ? "ok" : "torn");
	}
	/* One write per line: a kill leaves whole lines only. */
	if (write(log_fd, line, static_cast<size_t>(n)) != n)
		_exit(3);
}

int drain_all(mmcq_t *q)
{
	uint8_t buf[kMaxMsg];
	int got = 0;
	for (;;) {
		uint32_t len = sizeof(buf);
		int st = mmcq_receive(q, buf, &len);
		if (st != MMCQ_SUCCESS)
			return st == MMCQ_Q_EMPTY ? got : -st;
		log_message(buf, len);
		got++;
	}
}

void on_receive(mmcq_t *q, void *)
{
	drain_all(q);
}

int cmd_send(const char *name, long count, unsigned seed)
{
	evContext ev;
	__evCreate(&ev);
	mmcq_t *q = open_sender(name, &ev);
	std::mt19937 rng(seed);
	uint8_t buf[kMaxMsg];
	uint32_t id = static_cast<uint32_t>(getpid());
	setvbuf(stdout, nullptr, _IOLBF, 0);
	for (long seq = 1; seq <= count; seq++) {
		uint32_t len = fill(buf, id, static_cast<uint32_t>(seq),
		    16 + rng() % (kMaxMsg - 16 + 1));
		int st;
		while ((st = mmcq_send(q, buf, len)) == MMCQ_Q_FULL)
			usleep(1000);
		if (st != MMCQ_SUCCESS) {
			fprintf(stderr, "send: %s\n", mmcq_status_text(st));
			return 1;
		}
		printf("sent %u %ld\n", id, seq);
	}
	mmcq_close(q);
	__evDestroy(ev);
	return 0;
}

int open_log(const char *path)
{
	log_fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	if (log_fd < 0) {
		perror(path);
		exit(1);
	}
	return log_fd;
}

int cmd_recv(const char *name, const char *log)
{
	open_log(log);
	evContext ev;
	__evCreate(&ev);
	mmcq_t *q = mmcq_receiver_create(name, &ev, on_receive, kMaxMsg,
	    kDefault, kMax, kRegion, 0, nullptr);
	if (q == nullptr)
		return 1;
	printf("receiving\n");
	fflush(stdout);
	__evMainLoopSync(ev);
	return 0;
}

int cmd_drain(const char *name, const char *log)
{
	open_log(log);
	evContext ev;
	__evCreate(&ev);
	mmcq_t *q = mmcq_receiver_create(name, &ev, nullptr, kMaxMsg, kDefault,
	    kMax, kRegion, 0, nullptr);
	if (q == nullptr)
		return 1;
	int got = drain_all(q);
	printf("drained %d\n", got);
	mmcq_close(q);
	__evDestroy(ev);
	return got < 0 ? 1 : 0;
}

int cmd_fill(const char *name)
{
	evContext ev;
	__evCreate(&ev);
	mmcq_t *q = open_sender(name, &ev);
	uint8_t buf[kMaxMsg];
	uint32_t id = static_cast<uint32_t>(getpid());
	long seq = 0;
	int st;
	do {
		seq++;
		st = mmcq_send(q, buf, fill(buf, id, static_cast<uint32_t>(seq),
		    kMaxMsg));
	} while (st == MMCQ_SUCCESS);
	printf("status=%s sent=%ld\n", mmcq_status_text(st), seq - 1);
	mmcq_close(q);
	__evDestroy(ev);
	return st == MMCQ_Q_FULL ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
	signal(SIGPIPE, SIG_IGN);
	if (argc == 5 && strcmp(argv[1], "send") == 0)
		return cmd_send(argv[2], atol(argv[3]),
		    static_cast<unsigned>(atol(argv[4])));
	if (argc == 4 && strcmp(argv[1], "recv") == 0)
		return cmd_recv(argv[2], argv[3]);
	if (argc == 4 && strcmp(argv[1], "drain") == 0)
		return cmd_drain(argv[2], argv[3]);
	if (argc == 3 && strcmp(argv[1], "fill") == 0)
		return cmd_fill(argv[2]);
	fprintf(stderr, "usage: mmcq-torture send NAME COUNT SEED | recv NAME LOG"
	    " | drain NAME LOG | fill NAME\n");
	return 2;
}
