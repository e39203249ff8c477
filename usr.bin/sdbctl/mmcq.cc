/*
 * sdbctl mmcq NAME [--json]: the header of the mapped queue
 * /mfs/var/mmcq/NAME, read from the file without opening the queue (no
 * lock, nothing written), and whether its receiver, a sender moving the
 * ring, or the initialiser is alive.  Exits 1 when the header is damaged.
 */
#include "sdbctl.h"

#include "mmf/mmcq.h"
#include "mmf/mmf.h"
#include "platform/paths.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct field {
	const char *name;	/* the JSON key; spaces for the text */
	size_t offset;
};

#define F(f) {#f, offsetof(mmcq_header_t, f)}
constexpr field kOffsets[] = {
	F(min_data_offset), F(max_data_offset), F(put_offset), F(take_offset),
	F(max_data_bytes), F(max_msg_bytes), F(ext_take), F(ext_done),
};
constexpr field kCounters[] = {
	F(msgs_sent), F(bytes_sent), F(msgs_received), F(bytes_received),
	F(high_water), F(dropped_entries), F(msg_map_failures),
	F(wrap_map_failures), F(extensions_tried), F(wakeups_written),
	F(wakeup_bytes_written), F(wakeup_reads), F(wakeup_bytes_read),
	F(fifo_closures), F(opens_not_ready), F(opens_gave_up), F(opens_reinit),
};
#undef F

uint32_t word(const mmcq_header_t &h, size_t off)
{
	uint32_t v;
	memcpy(&v, reinterpret_cast<const uint8_t *>(&h) + off, 4);
	return v;
}

std::string spaced(const char *key)
{
	std::string s = key;
	for (char &c : s)
		if (c == '_')
			c = ' ';
	return s;
}

const char *state_text(uint32_t state)
{
	return state == MMCQ_STATE_READY ? "ready" :
	    state == MMCQ_STATE_INIT ? "initialising" : "none";
}

struct view {
	std::string name;
	uint64_t file_bytes, current_bytes;
	mmcq_header_t h;
	bool alive[4];		/* creator, receiver, extender, parked */
	uint32_t used;
	const char *fault;
};

void print_text(const view &v)
{
	const mmcq_header_t &h = v.h;
	printf("queue %s: %" PRIu64 " bytes (heap %" PRIu64 ")\n",
	    v.name.c_str(), v.file_bytes, v.current_bytes);
	printf("  %-26s %u (%s)\n", "version", h.version, state_text(h.state));
	const char *who[] = {"creator", "receiver", "extender",
	    "receiver parked"};
	const uint32_t pid[] = {h.creator, h.receiver, h.extender,
	    h.receiver_parked};
	for (int i = 0; i < 4; i++)
		printf("  %-26s %u%s\n", who[i], pid[i], pid[i] == 0 ? "" :
		    v.alive[i] ? " (alive)" : " (gone)");
	printf("  %-26s %s\n", "receiver alive", v.alive[1] ? "yes" : "no");
	printf("  %-26s %u %u %u\n", "no wakeups, rnw, disabled", h.no_wakeups,
	    h.rnw, h.send_disabled);
	for (const field &f : kOffsets)
		printf("  %-26s %u\n", spaced(f.name).c_str(), word(h, f.offset));
	printf("  %-26s %u\n", "bytes in use", v.used);
	for (const field &f : kCounters)
		printf("  %-26s %u\n", spaced(f.name).c_str(), word(h, f.offset));
	printf("%s\n", v.fault == nullptr ? "valid" : v.fault);
}

void print_json(const view &v)
{
	const mmcq_header_t &h = v.h;
	printf("{\"name\": \"%s\", \"file_bytes\": %" PRIu64
	    ", \"current_bytes\": %" PRIu64 ", \"version\": %u, "
	    "\"state\": \"%s\", \"creator\": %u, \"receiver\": %u, "
	    "\"receiver_alive\": %s, \"extender\": %u, \"extender_alive\": %s, "
	    "\"receiver_parked\": %u, \"no_wakeups\": %u, \"rnw\": %u, "
	    "\"send_disabled\": %u, \"bytes_in_use\": %u",
	    v.name.c_str(), v.file_bytes, v.current_bytes, h.version,
	    state_text(h.state), h.creator, h.receiver,
	    v.alive[1] ? "true" : "false", h.extender,
	    v.alive[2] ? "true" : "false", h.receiver_parked, h.no_wakeups,
	    h.rnw, h.send_disabled, v.used);
	for (const field &f : kOffsets)
		printf(", \"%s\": %u", f.name, word(h, f.offset));
	for (const field &f : kCounters)
		printf(", \"%s\": %u", f.name, word(h, f.offset));
	if (v.fault == nullptr)
		printf(", \"valid\": true}\n");
	else
		printf(", \"valid\": false, \"fault\": \"%s\"}\n", v.fault);
}

} // namespace

int sdbctl_mmcq(int argc, char **argv)
{
	bool json = argc == 3 && strcmp(argv[2], "--json") == 0;
	if ((argc != 2 && !json) || strchr(argv[1], '/') != nullptr) {
		fprintf(stderr, "usage: sdbctl mmcq NAME [--json]\n");
		return SDBCTL_EXIT_USAGE;
	}
	view v{};
	v.name = argv[1];
	std::string path = tolvar::path(std::string(MMCQ_DIR) + v.name);
	int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	struct stat st;
	if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
		fprintf(stderr, "sdbctl: mmcq %s: %s\n", argv[1],
		    fd < 0 ? strerror(errno) : "not a regular file");
		if (fd >= 0)
			close(fd);
		return SDBCTL_EXIT_FAIL;
	}
	v.file_bytes = static_cast<uint64_t>(st.st_size);
	mmf_shared_info_t si{};
	bool ok = pread(fd, &si, sizeof(si), 0) == sizeof(si) &&
	    si.magic == MMF_MAGIC_READY && si.common_len == MMCQ_HEADER_BYTES &&
	    si.common_offset >= sizeof(si) && si.common_offset % 4 == 0 &&
	    pread(fd, &v.h, sizeof(v.h), static_cast<off_t>(si.common_offset)) ==
	    sizeof(v.h);
	if (!ok) {
		fprintf(stderr, "sdbctl: mmcq %s: not a queue file (no ready heap"
		    " with a queue header)\n", argv[1]);
		close(fd);
		return SDBCTL_EXIT_FAIL;
	}
	v.current_bytes = si.current_bytes;
	const mmcq_header_t &h = v.h;
	const uint32_t pid[] = {h.creator, h.receiver, h.extender,
	    h.receiver_parked};
	for (int i = 0; i < 4; i++)
		v.alive[i] = pid[i] != 0 && pid[i] != static_cast<uint32_t>(getpid()) &&
		    mmcq_pid_alive_on(pid[i], fd);
	close(fd);
	v.fault = h.state == MMCQ_STATE_READY ?
	    mmcq_header_fault(&h, v.current_bytes) : "header not ready";
	if (v.fault == nullptr)
		v.used = h.put_offset >= h.take_offset ?
		    h.put_offset - h.take_offset :
		    h.max_data_bytes - (h.take_offset - h.put_offset);
	if (json)
		print_json(v);
	else
		print_text(v);
	return v.fault == nullptr ? 0 : SDBCTL_EXIT_FAIL;
}
