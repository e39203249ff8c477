/*
 * The mapped queue.
 *
 * Who writes what:
 *  - put_offset: senders, under the heap lock, after the message bytes;
 *  - take_offset: the receiver, by compare-and-swap, after it has copied
 *    the message out; a move of the ring changes it too, by
 *    compare-and-swap, so a reader whose view went stale retries instead
 *    of delivering a message twice;
 *  - extender / receiver_parked: the handshake that keeps the receiver
 *    out of the ring while a sender moves it.
 *
 * Crash safety of a move.  The ring only needs moving when it is wrapped
 * (put below take): the span take..max goes up by the growth.  The move
 * is recorded in the header (ext_take, ext_done) and copies top down in
 * chunks that never overlap their own source, so any process that finds
 * a move in flight with a dead mover redoes the last chunk and finishes
 * it.  Its commit writes max_data_offset before take_offset; a process
 * that finds ext_take set and max already raised only has the take
 * offset left to shift.  An unwrapped ring grows by raising
 * max_data_offset alone; an empty one also brings both offsets back to
 * the start, through a wrap marker so that every step is a valid ring.
 *
 * Bad bytes (a wrong length, a misplaced wrap marker, a damaged header)
 * never stop the process: the entry is skipped with an event and the
 * count at header word 0x60, a damaged header is laid anew, a damaged
 * file made again.  Nobody waits for ever on a partner: a stopped
 * receiver or mover makes the other give up after 30 seconds.
 */
#include "mmf/mmcq.h"

#include "mmf_impl.h"
#include "platform/crashpoint.h"
#include "platform/paths.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace mmf_impl;

namespace {

constexpr uint32_t kMagic = 0x11223344;
constexpr uint32_t kPollMs = 50;
constexpr uint32_t kStatusMs = 300000;
constexpr uint32_t kStatusTimer = 0;
constexpr uint32_t kPollTimer = 1;

} // namespace

struct mmcq {
	uint32_t magic;
	uint32_t size;
	char *name;
	uint32_t debug_flags;
	bool verbose;
	bool sender;
	uint32_t grow_by_bytes;
	uint32_t default_bytes;
	uint32_t current_bytes;
	uint32_t max_bytes;
	uint32_t region_map_bytes;
	mmcq_header_t *q;
	mmf_t *mmf;
	mm_ctx_t *ev;
	int fifo_fd;
	bool read_enabled;
	bool status_timer_running;
	bool poll_timer_running;
	mmcq_receive_cb_t receive_cb;
	mmcq_status_cb_t receiver_status_change_cb;
	uint32_t take_seen;
	bool receiver_connected;
	mmcq_header_t local;		/* this handle's share of the counters */
	void *user_arg;

	/* Private to this rebuild. */
	bool own_ev;			/* the binding was made here */
	bool in_callback;
	bool close_pending;
	bool delete_pending;
	bool replaced_reported;
	uint64_t extend_again_ns;	/* after a mover gave up waiting */
	uint32_t own_max_msg;		/* what this opener asked for */
};

namespace {

std::mutex live_mu;
std::set<mmcq_t *> live;

bool is_live(mmcq_t *q)
{
	std::lock_guard<std::mutex> g(live_mu);
	return live.count(q) != 0;
}

template <class T> std::atomic_ref<T> at(T &x)
{
	return std::atomic_ref<T>(x);
}

#define BUMP(qq, field, n) do {						\
	(qq)->q->field += (n);						\
	(qq)->local.field += (n);					\
} while (0)

uint32_t self()
{
	return static_cast<uint32_t>(mmf_getpid());
}

void report(mmcq_t *q, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void report(mmcq_t *q, const char *fmt, ...)
{
	if (q != nullptr && !(q->debug_flags & (MMCQ_DEBUG_PRINTF | MMCQ_DEBUG_MORE)))
		return;
	va_list ap;
	va_start(ap, fmt);
	vprintf(fmt, ap);
	va_end(ap);
}

bool partner_alive(mmcq_t *q, uint32_t pid)
{
	return mmcq_pid_alive_on(pid, q->mmf->fd);
}

/* Sleep of a partner wait: 1 ms up by 1 ms to 100 ms; false after 30 s. */
struct waiter {
	uint64_t step_ms = 1, total_ns = 0;
	bool wait()
	{
		sleep_ns(step_ms * 1000000ull);
		total_ns += step_ms * 1000000ull;
		if (step_ms < 100)
			step_ms++;
		return total_ns <= scaled_ns(30);
	}
};

uint32_t page_size()
{
	return static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
}

/* The bounds that every reader and writer relies on. */
const char *header_fault(const mmcq_header_t *h, uint64_t current)
{
	uint32_t min = h->min_data_offset, max = h->max_data_offset;
	uint32_t put = at(const_cast<uint32_t &>(h->put_offset)).load();
	uint32_t take = at(const_cast<uint32_t &>(h->take_offset)).load();
	if (h->version != MMCQ_VERSION || h->size != MMCQ_HEADER_BYTES)
		return "wrong version or size";
	if (min < page_size() || min >= max || max > current)
		return "ring bounds outside the file";
	if (h->max_data_bytes != max - min)
		return "ring size disagrees with its bounds";
	if (h->max_msg_bytes == 0 || uint64_t(h->max_msg_bytes) + 4 >= h->max_data_bytes)
		return "largest message does not fit the ring";
	if (h->send_disabled > 1)
		return "send disabled flag not 0 or 1";
	/* in the commit of a move take stands in the grown part */
	if (put < min || put > max || take < min ||
	    take > (h->ext_take == 0 ? max : current))
		return "put or take offset outside the ring";
	if (h->ext_take != 0 && (h->ext_take < min || h->ext_take >= max))
		return "move record outside the ring";
	return nullptr;
}

bool header_sane(const mmcq_header_t *h, uint64_t current)
{
	return header_fault(h, current) == nullptr;
}

void event(mmcq_t *q, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void event(mmcq_t *q, const char *tag, const char *fmt, ...)
{
	char text[400];
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(text, sizeof(text), fmt, ap);
	va_end(ap);
	log_event(tag, "mmcq", __LINE__, "queue %s: %s", q->name, text);
}

/* The end of the queue header, in file offsets. */
uint64_t common_end(mmcq_t *q)
{
	return reinterpret_cast<uint8_t *>(q->q) -
	    reinterpret_cast<const uint8_t *>(mmf_get_shared_info(q->mmf)) +
	    MMCQ_HEADER_BYTES;
}

/* Under the heap lock: lay a new, empty header (state left at init). */
void init_header(mmcq_t *q, uint64_t common_end)
{
	mmcq_header_t *h = q->q;
	at(h->state).store(MMCQ_STATE_INIT);
	h->creator = self();
	h->version = MMCQ_VERSION;
	h->size = MMCQ_HEADER_BYTES;
	uint64_t foa = mmf_get_first_alloc_offset(q->mmf);
	uint32_t min = static_cast<uint32_t>(std::max(common_end, foa));
	uint32_t cur = static_cast<uint32_t>(mmf_get_current_bytes(q->mmf));
	uint32_t max_msg = h->max_msg_bytes;
	uint8_t *counters = reinterpret_cast<uint8_t *>(&h->msgs_sent);
	memset(counters, 0, sizeof(*h) - offsetof(mmcq_header_t, msgs_sent));
	h->max_msg_bytes = max_msg;
	h->min_data_offset = min;
	h->max_data_offset = cur;
	h->max_data_bytes = cur - min;
	at(h->put_offset).store(min);
	at(h->take_offset).store(min);
	h->ext_take = 0;
	h->ext_done = 0;
	h->send_disabled = 0;
	h->receiver = 0;
	at(h->extender).store(0);
	at(h->receiver_parked).store(0);
	h->reserved1 = 0;
}

/* ---- Growing the ring ---- */

/*
 * Wait until the receiver is out of the ring: none, dead, parked, or
 * ourselves.  False when a live receiver stayed inside for 30 seconds.
 */
bool wait_receiver_out(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	waiter w;
	for (;;) {
		uint32_t r = at(h->receiver).load();
		if (r == 0 || r == self())
			return true;
		if (!partner_alive(q, r)) {
			at(h->receiver).compare_exchange_strong(r, 0);
			return true;
		}
		uint32_t p = at(h->receiver_parked).load();
		if (p != 0) {
			if (p == self() || partner_alive(q, p))
				return true;
			at(h->receiver_parked).compare_exchange_strong(p, 0);
		}
		if (!w.wait())
			return false;
	}
}

bool copy_chunk(mmcq_t *q, std::vector<uint8_t> &buf, uint32_t from,
    uint32_t to, uint32_t len)
{
	void *src = mmf_ensure_mapped(q->mmf, from, len);
	if (src == nullptr) {
		report(q, "mmcq grow copy failed. couldn't map from offset %u\n",
		    from);
		return false;
	}
	memcpy(buf.data(), src, len);
	void *dst = mmf_ensure_mapped(q->mmf, to, len);
	if (dst == nullptr) {
		report(q, "mmcq grow copy failed. couldn't map to offset %u\n",
		    to);
		return false;
	}
	memcpy(dst, buf.data(), len);
	return true;
}

/*
 * Under the heap lock, with the receiver out: bring the ring up to the
 * heap's size.  Finishes a move that a dead process left in flight.
 */
int finish_growth(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	uint32_t cur = static_cast<uint32_t>(mmf_get_current_bytes(q->mmf));
	uint32_t min = h->min_data_offset;
	if (h->ext_take == 0) {
		if (cur <= h->max_data_offset)
			return MMCQ_SUCCESS;
		uint32_t put = at(h->put_offset).load();
		uint32_t take = at(h->take_offset).load();
		if (put >= take) {
			h->max_data_bytes = cur - min;
			at(h->max_data_offset).store(cur);
			if (put == take && put != min) {
				/* Both offsets back to the start: a marker
				 * first, so each step leaves a valid ring. */
				void *p = mmf_ensure_mapped(q->mmf, put, 4);
				if (p == nullptr)
					return MMCQ_SUCCESS;
				memset(p, 0, 4);
				at(h->put_offset).store(min);
				at(h->take_offset).compare_exchange_strong(take, min);
			}
			q->current_bytes = cur;
			return MMCQ_SUCCESS;
		}
		h->ext_done = h->max_data_offset;
		at(h->ext_take).store(take);
		TOLVAR_CRASH_POINT("mmcq.extend.move");
	}
	/*
	 * The commit shifts take before it raises max: a process that finds
	 * ext_take set and max not raised knows the growth (cur - max) and
	 * sees take at T (not shifted) or T + g (shifted); with max raised
	 * only ext_take is left to clear.
	 */
	uint32_t T = h->ext_take;
	if (h->max_data_offset != cur) {
		uint32_t M = h->max_data_offset;
		uint32_t g = cur - M;
		uint32_t R = static_cast<uint32_t>(q->mmf->region_map_bytes);
		if (R == 0 || R > g)
			R = g;
		uint32_t P = h->ext_done;
		if (P < T || P > M)
			P = M;
		std::vector<uint8_t> buf(R);
		while (P > T) {
			uint32_t dtop = P + g;
			uint32_t dstart = (dtop - 1) / R * R;
			uint32_t s = std::max(T, dstart - g);
			if (!copy_chunk(q, buf, s, s + g, P - s))
				return MMCQ_MEM_FAILURE;
			h->ext_done = s;
			P = s;
			TOLVAR_CRASH_POINT("mmcq.extend.chunk");
		}
		uint32_t expect = T;
		at(h->take_offset).compare_exchange_strong(expect, T + g);
		TOLVAR_CRASH_POINT("mmcq.extend.commit");
		h->max_data_bytes = cur - min;
		at(h->max_data_offset).store(cur);
	}
	at(h->ext_take).store(0);
	h->ext_done = 0;
	q->current_bytes = cur;
	return MMCQ_SUCCESS;
}

/* Under the heap lock: whatever a dead process left half done. */
int settle(mmcq_t *q, bool as_receiver)
{
	mmcq_header_t *h = q->q;
	uint64_t cur = mmf_get_current_bytes(q->mmf);
	if (h->ext_take == 0 && cur <= h->max_data_offset)
		return MMCQ_SUCCESS;
	at(h->extender).store(self());
	int st = MMCQ_Q_FULL;
	bool wrapped = h->ext_take != 0 ||
	    at(h->put_offset).load() < at(h->take_offset).load();
	if (as_receiver || !wrapped || wait_receiver_out(q))
		st = finish_growth(q);
	else
		event(q, "MMCQ_EXTEND_GAVE_UP", "receiver %u stayed in the ring"
		    " for 30 seconds; the ring is not moved", h->receiver);
	uint32_t me = self();
	at(h->extender).compare_exchange_strong(me, 0);
	return st;
}

} // namespace

/* ---- Wakeups ---- */

namespace {

void ensure_receiver_notify(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	if (h->no_wakeups || q->fifo_fd < 0)
		return;
	uint8_t one = 1;
	if (!at(h->rnw).compare_exchange_strong(one, 0))
		return;
	uint8_t byte = 1;
	if (write(q->fifo_fd, &byte, 1) != 1) {
		at(h->rnw).store(1);
		report(q, "%s: send to receiver failed?\n", q->name);
		return;
	}
	BUMP(q, wakeups_written, 1);
	BUMP(q, wakeup_bytes_written, 1);
}

bool open_fifo(mmcq_t *q)
{
	std::string path = tolvar::path(std::string(MMCQ_FIFO_PREFIX) + q->name);
	mmf_mkdir_path("/var/tmp");
	mode_t old = umask(0);
	int rc = mkfifo(path.c_str(), 0600);
	umask(old);
	if (rc != 0 && errno != EEXIST) {
		report(q, "open of %s failed\n", path.c_str());
		return false;
	}
	chmod(path.c_str(), 0600);
	q->fifo_fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
	if (q->fifo_fd < 0) {
		report(q, "open of %s failed\n", path.c_str());
		return false;
	}
	q->ev->ops->sock_set(q->ev, q->fifo_fd);
	return true;
}

void close_fifo(mmcq_t *q)
{
	if (q->fifo_fd < 0)
		return;
	q->ev->ops->sock_reset(q->ev);
	close(q->fifo_fd);
	q->fifo_fd = -1;
	q->read_enabled = false;
}

void fifo_ready(void *ctx);

void read_wakeups(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	uint8_t buf[1000];
	int eintr = 0;
	for (;;) {
		ssize_t n = read(q->fifo_fd, buf, sizeof(buf));
		if (n < 0 && errno == EINTR) {
			if (++eintr >= 10)
				return;
			continue;
		}
		if (n < 0 && errno == EAGAIN)
			return;
		if (n < 0) {
			/* The wakeups are lost, not the messages: reopen. */
			int err = errno;
			report(q, "read failed. disconnected. errno = %d\n", err);
			event(q, "MMCQ_FIFO_READ_FAILED", "receiver receiver read"
			    " failed, errno %d; FIFO reopened", err);
			BUMP(q, fifo_closures, 1);
			close_fifo(q);
			if (open_fifo(q))
				q->read_enabled = q->ev->ops->sock_enable_read(q->ev,
				    fifo_ready);
			return;
		}
		BUMP(q, wakeup_reads, 1);
		BUMP(q, wakeup_bytes_read, static_cast<uint32_t>(n));
		if (static_cast<size_t>(n) < sizeof(buf) ||
		    h->wakeup_bytes_read >= h->wakeup_bytes_written)
			return;
	}
}

void fifo_ready(void *ctx)
{
	mmcq_receiver_receive(static_cast<mmcq_t *>(
	    static_cast<mm_ctx_t *>(ctx)->queue));
}

void stop_timers(mmcq_t *q)
{
	if (q->status_timer_running)
		q->ev->ops->conn_timer_destroy(q->ev, kStatusTimer);
	if (q->poll_timer_running)
		q->ev->ops->conn_timer_destroy(q->ev, kPollTimer);
	q->status_timer_running = q->poll_timer_running = false;
}

/* Sender's view of the receiver; true when it changed. */
bool check_receiver(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	uint32_t r = at(h->receiver).load();
	bool alive = r != 0 && partner_alive(q, r);
	if (r != 0 && !alive) {
		mmf_lock(q->mmf);
		at(h->receiver).compare_exchange_strong(r, 0);
		mmf_unlock(q->mmf);
	}
	bool changed = alive != q->receiver_connected;
	q->receiver_connected = alive;
	q->take_seen = at(h->take_offset).load();
	return changed;
}

void status_tick(void *ctx)
{
	mmcq_t *q = static_cast<mmcq_t *>(static_cast<mm_ctx_t *>(ctx)->queue);
	if (!is_live(q))
		return;
	if (check_receiver(q) && q->receiver_status_change_cb != nullptr)
		q->receiver_status_change_cb(q, q->receiver_connected);
}

void start_status_timer(mmcq_t *q)
{
	if (q->receiver_status_change_cb == nullptr || q->status_timer_running)
		return;
	q->status_timer_running = q->ev->ops->conn_timer_create(q->ev,
	    kStatusMs, status_tick, kStatusTimer);
}

void duplicate_receiver(mmcq_t *q, uint32_t prev)
{
	std::string log = tolvar::path(MMCQ_DUPE_LOG);
	mmf_mkdir_path("/var/tmp");
	FILE *f = fopen(log.c_str(), "a");
	if (f != nullptr) {
		fprintf(f, "queue %s, pidPrev %d, pidNew %d\n", q->name,
		    static_cast<int>(prev), static_cast<int>(self()));
		fclose(f);
	}
	char cmd[600];
	snprintf(cmd, sizeof(cmd), "ps -fp %d %d | tail -2 >> '%s' 2>&1",
	    static_cast<int>(prev), static_cast<int>(self()), log.c_str());
	int rc = system(cmd);
	(void)rc;
	event(q, "MMCQ_DUPLICATE_RECEIVER", "receiver %u replaces live"
	    " receiver %u", self(), prev);
}

/* ---- Opening ---- */

bool valid_name(const char *name)
{
	return name != nullptr && *name != '\0' && strlen(name) < 200 &&
	    strchr(name, '/') == nullptr && strcmp(name, ".") != 0 &&
	    strcmp(name, "..") != 0;
}

mmf_t *open_heap(mmcq_t *q, uint32_t max_map_region_bytes, bool *created)
{
	std::string file = std::string(MMCQ_DIR) + q->name;
	mmf_mkdir_path(MMCQ_DIR);
	bool whole = q->max_bytes == q->grow_by_bytes;
	uint32_t nregions = 1, region = 0;
	if (!whole) {
		region = max_map_region_bytes / 4;
		MMF_ASSERT(region != 0 && max_map_region_bytes % region == 0);
		nregions = q->grow_by_bytes / region;
		region = q->grow_by_bytes / nregions;
	}
	const uint32_t sizes[] = {MMCQ_HEADER_BYTES};
	for (int attempt = 0; attempt < 2; attempt++) {
		mmf_t *m = mmf_create(file.c_str(), q->max_bytes, q->default_bytes,
		    q->grow_by_bytes, whole, region, nregions, 1, sizes,
		    MMF_CREATE_RAW, created);
		if (m != nullptr)
			return m;
		if (mmf_errno != EUCLEAN || attempt > 0)
			break;
		event(q, "MMCQ_FILE_DAMAGED", "%s refused as damaged; removed and"
		    " made again, its messages are lost", file.c_str());
		mmf_unlink(file.c_str());
	}
	report(q, "mmcq q mmf create failed\n");
	return nullptr;
}

/* Under the heap lock: the header, laid anew when missing or damaged. */
mmcq_header_t *find_header(mmcq_t *q, bool *fresh)
{
	uint32_t len = MMCQ_HEADER_BYTES;
	uint64_t off = 0;
	void *p = mmf_alloc_common(q->mmf, &len, &off);
	if (p == nullptr || len != MMCQ_HEADER_BYTES || off % 4 != 0 ||
	    off >= mmf_get_first_alloc_offset(q->mmf)) {
		report(q, "mmcq q alloc failed\n");
		return nullptr;
	}
	q->q = static_cast<mmcq_header_t *>(p);
	mmcq_header_t *h = q->q;
	uint64_t cur = mmf_get_current_bytes(q->mmf);
	uint32_t state = at(h->state).load();
	*fresh = false;
	bool shape = h->version == MMCQ_VERSION && h->size == MMCQ_HEADER_BYTES;
	if (!shape || (state == MMCQ_STATE_READY && !header_sane(h, cur)) ||
	    (state != MMCQ_STATE_READY && state != MMCQ_STATE_INIT)) {
		if (shape || state != 0)
			event(q, "MMCQ_HEADER_DAMAGED", "header refused (state"
			    " %#x); laid anew, its messages are lost", state);
		h->max_msg_bytes = 0;
		init_header(q, off + MMCQ_HEADER_BYTES);
		*fresh = true;
	}
	return h;
}

/*
 * Drop the lock and wait for a header that another opener is laying;
 * lay it ourselves when that opener died or took 121 seconds.
 */
bool wait_ready(mmcq_t *q, uint64_t common_end)
{
	mmcq_header_t *h = q->q;
	BUMP(q, opens_not_ready, 1);
	uint64_t start = now_ns();
	for (;;) {
		mmf_unlock(q->mmf);
		sleep_ns(10000000);
		mmf_lock(q->mmf);
		if (at(h->state).load() == MMCQ_STATE_READY &&
		    header_sane(h, mmf_get_current_bytes(q->mmf)))
			return false;
		bool gone = !partner_alive(q, h->creator);
		if (gone || now_ns() - start > scaled_ns(121)) {
			if (!gone)
				BUMP(q, opens_gave_up, 1);
			BUMP(q, opens_reinit, 1);
			h->max_msg_bytes = 0;
			init_header(q, common_end);
			return true;
		}
	}
}

/* A handle that never opened: nothing but its memory to give back. */
mmcq_t *discard(mmcq_t *q)
{
	free(q->name);
	if (q->own_ev)
		mm_ctx_destroy(q->ev);
	delete q;
	return nullptr;
}

mmcq_t *open_queue(const char *name, mm_ctx_t *ev, bool own_ev, bool receiver,
    mmcq_receive_cb_t receive_cb, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, void *user_arg, mmcq_status_cb_t status_cb,
    bool *created)
{
	if (created != nullptr)
		*created = false;
	if (!valid_name(name) || max_msg_bytes == 0 || default_bytes == 0 ||
	    max_bytes < default_bytes ||
	    (max_map_region_bytes != 0 && max_map_region_bytes < 4) ||
	    max_msg_bytes > max_bytes / 4) {
		if (own_ev)
			mm_ctx_destroy(ev);
		return nullptr;
	}
	auto *q = new mmcq{};
	q->magic = kMagic;
	q->size = sizeof(mmcq);
	q->name = strdup(name);
	q->debug_flags = flags;
	q->verbose = (flags & MMCQ_DEBUG_MORE) != 0;
	q->sender = !receiver;
	q->default_bytes = default_bytes;
	q->max_bytes = max_bytes;
	q->own_max_msg = max_msg_bytes;
	q->grow_by_bytes = (max_map_region_bytes == 0 ||
	    max_map_region_bytes == max_bytes) ? max_bytes : max_map_region_bytes;
	q->region_map_bytes = max_map_region_bytes / 4;
	q->fifo_fd = -1;
	q->ev = ev;
	q->own_ev = own_ev;
	q->receive_cb = receive_cb;
	q->receiver_status_change_cb = status_cb;
	q->user_arg = user_arg;
	ev->queue = q;

	bool file_created = false;
	q->mmf = open_heap(q, max_map_region_bytes, &file_created);
	if (q->mmf == nullptr)
		return discard(q);
	if (created != nullptr)
		*created = file_created;
	mmf_lock(q->mmf);
	bool fresh = false;
	mmcq_header_t *h = find_header(q, &fresh);
	if (h == nullptr) {
		mmf_unlock(q->mmf);
		mmf_close(q->mmf);
		return discard(q);
	}
	if (!fresh && at(h->state).load() != MMCQ_STATE_READY)
		fresh = wait_ready(q, common_end(q));
	if (fresh)
		h->max_msg_bytes = 0;
	if (max_msg_bytes > h->max_msg_bytes &&
	    uint64_t(max_msg_bytes) + 4 < h->max_data_bytes)
		h->max_msg_bytes = max_msg_bytes;
	if (receiver) {
		uint32_t prev = at(h->receiver).load();
		if (prev != 0 && prev != self() && partner_alive(q, prev))
			duplicate_receiver(q, prev);
		at(h->receiver).store(self());
		at(h->receiver_parked).store(self());
	}
	if (!h->no_wakeups)
		at(h->rnw).store(1);
	settle(q, receiver);
	q->current_bytes = h->max_data_offset;
	bool fifo_ok = true;
	if (receiver) {
		if (receive_cb == nullptr) {
			h->no_wakeups = 1;
			at(h->rnw).store(0);
		} else {
			h->no_wakeups = 0;
			fifo_ok = open_fifo(q);
		}
	} else {
		h->wakeups_written = h->wakeup_bytes_written = 0;
		h->wakeup_reads = h->wakeup_bytes_read = 0;
	}
	if (fresh)
		at(h->state).store(MMCQ_STATE_READY);
	mmf_unlock(q->mmf);
	{
		std::lock_guard<std::mutex> g(live_mu);
		live.insert(q);
	}
	if (!fifo_ok) {
		mmcq_close(q);
		return nullptr;
	}
	if (!receiver) {
		if (!h->no_wakeups && !open_fifo(q)) {
			mmcq_close(q);
			return nullptr;
		}
		check_receiver(q);
		start_status_timer(q);
		return q;
	}
	q->receiver_connected = true;
	if (receive_cb != nullptr) {
		q->read_enabled = ev->ops->sock_enable_read(ev, fifo_ready);
		if (flags & MMCQ_DEBUG_POLL)
			q->poll_timer_running = ev->ops->conn_timer_create(ev,
			    kPollMs, fifo_ready, kPollTimer);
		if (at(h->put_offset).load() != at(h->take_offset).load())
			ensure_receiver_notify(q);
	}
	return q;
}

} // namespace

extern "C" const char *mmcq_header_fault(const mmcq_header_t *h,
    uint64_t current_bytes)
{
	return header_fault(h, current_bytes);
}

extern "C" bool mmcq_pid_alive_on(uint32_t pid, int fd)
{
	if (pid == 0 || pid > static_cast<uint32_t>(INT32_MAX))
		return false;
	if (pid == self())
		return true;
	return mmf_pid_alive(static_cast<pid_t>(pid)) &&
	    mmf_pid_maps_file(static_cast<pid_t>(pid), fd);
}

extern "C" mmcq_t *mmcq_receiver_create(const char *name, evContext *ev_ctx,
    mmcq_receive_cb_t receive_cb, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, void *user_arg)
{
	if (ev_ctx == nullptr)
		return nullptr;
	return open_queue(name, mm_ev_create(ev_ctx, nullptr), true, true,
	    receive_cb, max_msg_bytes, default_bytes, max_bytes,
	    max_map_region_bytes, flags, user_arg, nullptr, nullptr);
}

extern "C" mmcq_t *mmcq_sender_create(const char *name, evContext *ev_ctx,
    uint32_t max_msg_bytes, uint32_t default_bytes, uint32_t max_bytes,
    uint32_t max_map_region_bytes, uint32_t flags,
    mmcq_status_cb_t receiver_status_change_cb, bool *created)
{
	if (ev_ctx == nullptr)
		return nullptr;
	return open_queue(name, mm_ev_create(ev_ctx, nullptr), true, false,
	    nullptr, max_msg_bytes, default_bytes, max_bytes,
	    max_map_region_bytes, flags, nullptr, receiver_status_change_cb,
	    created);
}

extern "C" mmcq_t *mmcq_receiver_create_task(const char *name,
    mmcq_receive_cb_t receive_cb, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, void *user_arg)
{
	return open_queue(name, mm_task_create(), true, true, receive_cb,
	    max_msg_bytes, default_bytes, max_bytes, max_map_region_bytes, flags,
	    user_arg, nullptr, nullptr);
}

extern "C" mmcq_t *mmcq_sender_create_task(const char *name,
    uint32_t max_msg_bytes, uint32_t default_bytes, uint32_t max_bytes,
    uint32_t max_map_region_bytes, uint32_t flags,
    mmcq_status_cb_t receiver_status_change_cb, bool *created)
{
	return open_queue(name, mm_task_create(), true, false, nullptr,
	    max_msg_bytes, default_bytes, max_bytes, max_map_region_bytes, flags,
	    nullptr, receiver_status_change_cb, created);
}

/* ---- Sending ---- */

namespace {

bool usable(mmcq_t *q)
{
	return q != nullptr && is_live(q) && q->magic == kMagic &&
	    q->size == sizeof(mmcq) && q->q != nullptr && !q->close_pending;
}

/* Under the heap lock: a damaged header is laid anew, messages lost. */
void repair_header(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	if (header_sane(h, mmf_get_current_bytes(q->mmf)))
		return;
	event(q, "MMCQ_HEADER_DAMAGED", "bounds of the ring are wrong"
	    " (min %u max %u put %u take %u); laid anew, its messages are"
	    " lost", h->min_data_offset, h->max_data_offset, h->put_offset,
	    h->take_offset);
	uint32_t max_msg = h->max_msg_bytes;
	uint32_t receiver = h->receiver;
	uint8_t no_wakeups = h->no_wakeups;
	init_header(q, common_end(q));
	if (max_msg == 0 || uint64_t(max_msg) + 4 >= h->max_data_bytes)
		max_msg = std::min<uint32_t>(h->max_data_bytes / 4, 1024);
	h->max_msg_bytes = max_msg;
	h->receiver = receiver;
	h->no_wakeups = no_wakeups <= 1 ? no_wakeups : 0;
	at(h->state).store(MMCQ_STATE_READY);
}

int send_locked(mmcq_t *q, const void *msg, uint32_t len)
{
	mmcq_header_t *h = q->q;
	TOLVAR_CRASH_POINT("mmcq.send.locked");
	for (int round = 0;; round++) {
		repair_header(q);
		/* A stored limit below ours is raised, as at open. */
		if (len > h->max_msg_bytes && len <= q->own_max_msg &&
		    uint64_t(q->own_max_msg) + 4 < h->max_data_bytes)
			h->max_msg_bytes = q->own_max_msg;
		if (len > h->max_msg_bytes)
			return MMCQ_BAD_PARAMETER;
		int st = settle(q, false);
		if (st != MMCQ_SUCCESS)
			return st;
		uint32_t min = h->min_data_offset, max = h->max_data_offset;
		uint32_t put = at(h->put_offset).load();
		if (put == max)
			put = min;
		uint32_t take = at(h->take_offset).load();
		uint32_t total = len + 4;
		uint64_t end = uint64_t(put) + total;
		uint64_t unused = put < take ? take - put :
		    h->max_data_bytes - (put - take);
		if (end > max)
			unused -= max - put;
		if (total < unused) {
			if (end > max) {
				if (max - put >= 4) {
					void *m = mmf_ensure_mapped(q->mmf, put, 4);
					if (m == nullptr) {
						BUMP(q, wrap_map_failures, 1);
						return MMCQ_MEM_FAILURE;
					}
					memset(m, 0, 4);
				}
				put = min;
			}
			auto *p = static_cast<uint8_t *>(mmf_ensure_mapped(q->mmf,
			    put, total));
			if (p == nullptr) {
				BUMP(q, msg_map_failures, 1);
				return MMCQ_MEM_FAILURE;
			}
			memcpy(p, &total, 4);
			memcpy(p + 4, msg, len);
			TOLVAR_CRASH_POINT("mmcq.send.written");
			uint32_t next = put + total;
			if (next == max)
				next = min;
			at(h->put_offset).store(next);
			BUMP(q, msgs_sent, 1);
			BUMP(q, bytes_sent, len);
			uint32_t used = next >= take ? next - take :
			    h->max_data_bytes - (take - next);
			if (used > h->high_water)
				h->high_water = used;
			if (used > q->local.high_water)
				q->local.high_water = used;
			return MMCQ_SUCCESS;
		}
		if (round > 0 || mmf_get_current_bytes(q->mmf) >= q->max_bytes ||
		    now_ns() < q->extend_again_ns)
			return MMCQ_Q_FULL;
		BUMP(q, extensions_tried, 1);
		if (!mmf_try_grow(q->mmf)) {
			report(q, "mmcq mmf extend failed\n");
			return mmf_get_current_bytes(q->mmf) >= q->max_bytes ?
			    MMCQ_Q_FULL : MMCQ_MEM_FAILURE;
		}
		TOLVAR_CRASH_POINT("mmcq.extend.grown");
		st = settle(q, false);
		if (st == MMCQ_Q_FULL)
			q->extend_again_ns = now_ns() + scaled_ns(30);
		if (st != MMCQ_SUCCESS)
			return st;
	}
}

} // namespace

extern "C" int mmcq_send(mmcq_t *q, const void *msg, uint32_t len)
{
	if (!usable(q) || msg == nullptr || len == 0)
		return MMCQ_BAD_PARAMETER;
	if (q->q->send_disabled)
		return MMCQ_SEND_DISABLED;
	mmf_lock(q->mmf);
	int st = send_locked(q, msg, len);
	mmf_unlock(q->mmf);
	if (st == MMCQ_SUCCESS && !(q->debug_flags & MMCQ_DEBUG_POLL))
		ensure_receiver_notify(q);
	return st;
}

/* ---- Receiving ---- */

namespace {

/*
 * Keep out of the ring while a live sender moves it; finish a move whose
 * mover died.  False when the mover stayed for 30 seconds.
 */
bool enter_ring(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	waiter w;
	for (;;) {
		at(h->receiver_parked).store(0);
		uint32_t e = at(h->extender).load();
		if (e != 0 && e != self() && partner_alive(q, e)) {
			at(h->receiver_parked).store(self());
			if (!w.wait()) {
				event(q, "MMCQ_EXTENDER_STALLED", "sender %u moved"
				    " the ring for 30 seconds; receive given up", e);
				return false;
			}
			continue;
		}
		if (e == 0 && at(h->ext_take).load() == 0)
			return true;
		/* A mover died: finish its work under the heap lock. */
		at(h->receiver_parked).store(self());
		mmf_lock(q->mmf);
		uint32_t now = at(h->extender).load();
		if (now == e || now == 0 || !partner_alive(q, now)) {
			at(h->extender).store(0);
			repair_header(q);
			settle(q, true);
		}
		mmf_unlock(q->mmf);
	}
}

/* Whether this handle is still the receiver; a live newer one wins. */
bool claim(mmcq_t *q)
{
	mmcq_header_t *h = q->q;
	uint32_t r = at(h->receiver).load();
	if (r == self())
		return true;
	if (r != 0 && partner_alive(q, r)) {
		if (!q->replaced_reported)
			event(q, "MMCQ_RECEIVER_REPLACED", "receiver %u took the"
			    " queue over; %u stops reading", r, self());
		q->replaced_reported = true;
		return false;
	}
	q->replaced_reported = false;
	return at(h->receiver).compare_exchange_strong(r, self());
}

/*
 * An entry that cannot be right.  Unless the view was stale, skip what
 * cannot be parsed: to the start of the ring from the upper part of a
 * wrapped ring, else to put.
 */
void drop_bad(mmcq_t *q, uint32_t take, uint32_t at_off, uint32_t put,
    const char *why, uint32_t bytes)
{
	mmcq_header_t *h = q->q;
	uint32_t to = at_off > put ? h->min_data_offset : put;
	if (to == take)
		return;
	uint32_t expect = take;
	if (!at(h->take_offset).compare_exchange_strong(expect, to))
		return;
	BUMP(q, dropped_entries, 1);
	event(q, "MMCQ_BAD_ENTRY", "%s at offset %u (length word %u); skipped"
	    " to %u", why, at_off, bytes, to);
}

int get_next(mmcq_t *q, void *buf, uint32_t *len, uint32_t *peek_len)
{
	mmcq_header_t *h = q->q;
	if (!claim(q))
		return MMCQ_Q_EMPTY;
	if (!enter_ring(q))
		return MMCQ_FAIL;
	int st = MMCQ_Q_EMPTY;
	for (int tries = 0; tries < 1000; tries++) {
		uint32_t take = at(h->take_offset).load();
		uint32_t put = at(h->put_offset).load();
		uint32_t min = h->min_data_offset, max = h->max_data_offset;
		uint32_t max_msg = h->max_msg_bytes;
		if (!header_sane(h, mmf_get_current_bytes(q->mmf))) {
			mmf_lock(q->mmf);
			repair_header(q);
			mmf_unlock(q->mmf);
			continue;
		}
		if (take == put) {
			st = MMCQ_Q_EMPTY;
			break;
		}
		uint32_t t = take;
		if (max - t < 5)
			t = min;
		uint32_t span = std::min(max - t, max_msg + 4);
		auto *p = static_cast<const uint8_t *>(
		    mmf_ensure_mapped(q->mmf, t, span));
		if (p == nullptr) {
			BUMP(q, msg_map_failures, 1);
			st = MMCQ_MEM_FAILURE;
			break;
		}
		uint32_t bytes;
		memcpy(&bytes, p, 4);
		if (bytes == 0 && t != min) {
			if (t <= put) {
				drop_bad(q, take, t, put, "wrap marker below put", 0);
				continue;
			}
			t = min;
			if (t == put) {
				uint32_t expect = take;
				at(h->take_offset).compare_exchange_strong(expect, t);
				continue;
			}
			span = std::min(max - t, max_msg + 4);
			p = static_cast<const uint8_t *>(
			    mmf_ensure_mapped(q->mmf, t, span));
			if (p == nullptr) {
				BUMP(q, wrap_map_failures, 1);
				st = MMCQ_MEM_FAILURE;
				break;
			}
			memcpy(&bytes, p, 4);
		}
		if (bytes <= 4 || bytes - 4 > max_msg || bytes > span ||
		    (t <= put && put - t < bytes)) {
			if (at(h->take_offset).load() == take &&
			    at(h->put_offset).load() == put)
				drop_bad(q, take, t, put, "bad length", bytes);
			continue;
		}
		uint32_t payload = bytes - 4;
		if (peek_len != nullptr && *peek_len != 0) {
			uint32_t n = std::min(*peek_len, payload);
			memcpy(buf, p + 4, std::min(n, *len));
			*peek_len = n;
			*len = payload;
			st = MMCQ_SUCCESS;
			break;
		}
		if (payload > *len) {
			*len = payload;
			st = MMCQ_BUFFER_TOO_SMALL;
			break;
		}
		memcpy(buf, p + 4, payload);
		TOLVAR_CRASH_POINT("mmcq.receive.copied");
		uint32_t next = t + bytes;
		if (next == max)
			next = min;
		uint32_t expect = take;
		if (!at(h->take_offset).compare_exchange_strong(expect, next))
			continue;	/* a move or a reset changed the ring */
		BUMP(q, msgs_received, 1);
		BUMP(q, bytes_received, payload);
		*len = payload;
		st = MMCQ_SUCCESS;
		break;
	}
	at(h->receiver_parked).store(self());
	return st;
}

} // namespace

extern "C" int mmcq_receive(mmcq_t *q, void *buf, uint32_t *len)
{
	if (!usable(q) || buf == nullptr || len == nullptr)
		return MMCQ_BAD_PARAMETER;
	return get_next(q, buf, len, nullptr);
}

extern "C" int mmcq_peek(mmcq_t *q, uint32_t *peek_len, void *buf,
    uint32_t *len)
{
	if (!usable(q) || buf == nullptr || len == nullptr)
		return MMCQ_BAD_PARAMETER;
	return get_next(q, buf, len, peek_len);
}

extern "C" void mmcq_receiver_receive(mmcq_t *q)
{
	if (!usable(q))
		return;
	mmcq_header_t *h = q->q;
	if (!claim(q)) {
		/* Replaced by a newer receiver: leave the FIFO to it, and
		 * hand on the wakeup that this handle may have taken. */
		if (q->read_enabled)
			q->ev->ops->sock_disable_read(q->ev);
		q->read_enabled = false;
		if (q->poll_timer_running)
			q->ev->ops->conn_timer_destroy(q->ev, kPollTimer);
		q->poll_timer_running = false;
		at(h->rnw).store(1);
		ensure_receiver_notify(q);
		return;
	}
	at(h->rnw).store(0);
	if (q->fifo_fd >= 0)
		read_wakeups(q);
	q->in_callback = true;
	if (q->receive_cb != nullptr)
		q->receive_cb(q, q->user_arg);
	q->in_callback = false;
	if (q->close_pending) {
		q->close_pending = false;
		if (q->delete_pending)
			mmcq_delete(q);
		else
			mmcq_close(q);
		return;
	}
	if (!h->no_wakeups)
		at(h->rnw).store(1);
	if (at(h->put_offset).load() != at(h->take_offset).load() &&
	    claim(q))
		ensure_receiver_notify(q);
}

/* ---- Closing and the small calls ---- */

namespace {

void close_queue(mmcq_t *q, bool remove)
{
	if (q == nullptr || !is_live(q))
		return;
	if (q->in_callback) {
		/* Finished by the read loop, which stops at once. */
		q->close_pending = true;
		q->delete_pending = remove;
		return;
	}
	{
		std::lock_guard<std::mutex> g(live_mu);
		live.erase(q);
	}
	mmf_lock(q->mmf);
	if (q->read_enabled)
		q->ev->ops->sock_disable_read(q->ev);
	stop_timers(q);
	close_fifo(q);
	mmf_unlock(q->mmf);
	if (remove) {
		unlink(tolvar::path(std::string(MMCQ_FIFO_PREFIX) + q->name).c_str());
		mmf_delete(q->mmf);
	} else {
		mmf_close(q->mmf);
	}
	if (q->own_ev)
		mm_ctx_destroy(q->ev);
	free(q->name);
	q->magic = 0;
	delete q;
}

} // namespace

extern "C" void mmcq_close(mmcq_t *q)
{
	close_queue(q, false);
}

extern "C" void mmcq_delete(mmcq_t *q)
{
	close_queue(q, true);
}

extern "C" void mmcq_reset(mmcq_t *q)
{
	if (!usable(q))
		return;
	mmcq_header_t *h = q->q;
	mmf_lock(q->mmf);
	repair_header(q);
	settle(q, !q->sender);
	/* Empty first, then both offsets to the start through a marker:
	 * a process killed between two steps leaves a valid ring. */
	uint32_t take = at(h->take_offset).load();
	uint32_t put = at(h->put_offset).load();
	uint32_t min = h->min_data_offset;
	if (at(h->take_offset).compare_exchange_strong(take, put))
		take = put;
	if (put != min) {
		if (h->max_data_offset - put >= 4) {
			void *p = mmf_ensure_mapped(q->mmf, put, 4);
			if (p != nullptr)
				memset(p, 0, 4);
		}
		at(h->put_offset).store(min);
		at(h->take_offset).compare_exchange_strong(take, min);
	}
	mmf_unlock(q->mmf);
}

extern "C" void mmcq_disable_send(mmcq_t *q)
{
	if (usable(q))
		at(q->q->send_disabled).store(1);
}

extern "C" void mmcq_enable_send(mmcq_t *q)
{
	if (usable(q))
		at(q->q->send_disabled).store(0);
}

extern "C" void mmcq_notify_receiver(mmcq_t *q)
{
	if (!usable(q))
		return;
	at(q->q->rnw).store(1);
	ensure_receiver_notify(q);
}

extern "C" void mmcq_get_stats(mmcq_t *q, uint32_t out[4])
{
	if (!usable(q)) {
		memset(out, 0, 4 * sizeof(uint32_t));
		return;
	}
	out[0] = q->q->dropped_entries;
	out[1] = q->q->high_water;
	out[2] = q->q->msgs_sent;
	out[3] = q->q->msgs_received;
}

extern "C" bool mmcq_is_valid(mmcq_t *q)
{
	return usable(q) && header_sane(q->q, mmf_get_current_bytes(q->mmf));
}

extern "C" void mmcq_quiesce(mmcq_t *q)
{
	if (usable(q))
		mmf_quiesce(q->mmf);
}

extern "C" void mmcq_set_status_cb(mmcq_t *q, evContext *, mmcq_status_cb_t cb)
{
	if (!usable(q))
		return;
	q->receiver_status_change_cb = cb;
	start_status_timer(q);
}

extern "C" void mmcq_claim_receiver(mmcq_t *q)
{
	if (!usable(q))
		return;
	uint32_t none = 0;
	at(q->q->receiver).compare_exchange_strong(none, self());
}

extern "C" bool mmcq_receiver_alive(mmcq_t *q)
{
	if (!usable(q))
		return false;
	check_receiver(q);
	return q->receiver_connected;
}

extern "C" int mmcq_fifo_fd(mmcq_t *q)
{
	return usable(q) ? q->fifo_fd : -1;
}

extern "C" const char *mmcq_status_text(int status)
{
	static const char *const names[] = {"SUCCESS", "Q_EMPTY", "Q_FULL",
	    "SEND_DISABLED", "MEM_FAILURE", "FAIL", "ERRNO", "Q_INIT_FAILED",
	    "BAD_PARAMETER", "BUFFER_TOO_SMALL"};
	if (status < 0 || status > MMCQ_BUFFER_TOO_SMALL)
		return "UNKNOWN";
	return names[status];
}
