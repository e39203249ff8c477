/*
 * The data queues' receive path, whole: the library in this process holds
 * a link over a socketpair, two of its items wait for acknowledgements and
 * a class of items is there to resync; the input is what the peer writes
 * after its control message.  Records, acknowledgements (with handles the
 * library gave out or never did), end-of-database records and resync
 * requests all reach the queues and the decode job.  The library may close
 * the link; it must never stop the process or touch memory it does not
 * own, and afterwards it must hold no lock on any item.
 */
#include "mirror_host.h"
#include "mirror_queue.h"
#include "mirror_wire.h"

#include <orx/mirror_data.h>
#include <platform/ev.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const mirror_db_entry db_table[] = {
	{2, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

struct item {
	mirror_data_node node;
	int	locks;
};

item items[4];
evContext ev;
mirror_reg_entry session_class;
unsigned sink_sum;

void
lock(mirror_data_node *n)
{
	reinterpret_cast<item *>(n)->locks++;
}

void
unlock(mirror_data_node *n)
{
	if (--reinterpret_cast<item *>(n)->locks < 0)
		abort();
}

int
encode(mirror_data_node *, uint8_t *buf, uint32_t room)
{
	if (room < 8)
		return 0;
	std::memcpy(buf, "fuzzitem", 8);
	return 8;
}

void
decode(mirror_recvd_data *rd)
{
	if (rd->got_len > rd->total_len)
		abort();
	for (uint32_t i = 0; i < rd->got_len; i++)
		sink_sum += rd->data[i];
}

mirror_data_node *
next(mirror_data_node *n)
{
	if (n == nullptr)
		return &items[2].node;
	return n == &items[2].node ? &items[3].node : nullptr;
}

void
acked(mirror_data_node *, int)
{
}

void
eod(uint32_t count, int)
{
	sink_sum += count;
}

void
timer_fatal(const char *)
{
	abort();
}

void
setup()
{
	/* A root with the platform file only, which names the peer engine
	 * that the fuzzed connections come from: without var/log the events
	 * of a million closed links go nowhere. */
	char tmpl[] = "/tmp/mirror-queue-fuzz.XXXXXX";
	const char *root = mkdtemp(tmpl);
	if (root == nullptr)
		abort();
	std::string etc = std::string(root) + "/etc";
	mkdir(etc.c_str(), 0755);
	mkdir((etc + "/tolvar").c_str(), 0755);
	FILE *f = fopen((etc + "/tolvar/platform").c_str(), "w");
	if (f == nullptr)
		abort();
	fputs("peer_address = 127.0.0.1\n", f);
	fclose(f);
	setenv("TOLVAR_ROOT", root, 1);
	__evCreate(&ev);
	mirror_state st{};
	st.mirror_db_table = db_table;
	st.MIRROR_DATA_LAST = 3;
	st.mirror_ack_id = 1;
	st.mirror_eod_id = 0;
	st.port = 0;
	st.is_master = 1;
	st.mirror_eventlib_context = ev;
	st.mirror_timer_context = otimer_context_create(ev, timer_fatal);
	if (mirror_setup(&st) != 0)
		abort();
	session_class.mirror_data_lock_func = lock;
	session_class.mirror_data_unlock_func = unlock;
	session_class.mirror_data_encode_func = encode;
	session_class.mirror_data_decode_func = decode;
	session_class.mirror_data_get_next_func = next;
	session_class.mirror_data_ack_func = acked;
	session_class.mirror_data_eod_func = eod;
	session_class.mirror_receiver = MIRROR_RECEIVER_BOTH;
	session_class.mirror_data_id = 2;
	mirror_register_data(&session_class);
	for (item &it : items)
		mirror_data_node_init(&it.node, 2);
}

/* Read and forget what the library wrote, so that it can always write. */
void
drain(int fd)
{
	uint8_t buf[65536];
	while (recv(fd, buf, sizeof(buf), MSG_DONTWAIT) > 0)
		;
}

int
pending(int fd)
{
	int n = 0;
	ioctl(fd, FIONREAD, &n);
	return n;
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static bool ready = (setup(), true);
	(void)ready;
	if (size > 60000)
		return 0;	/* one write into the socketpair */

	int sv[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
		abort();
	fcntl(sv[0], F_SETFL, O_NONBLOCK);
	mirror_addr *a = mirror_addr_v4(0, htonl(INADDR_LOOPBACK));
	mirror_listen_accept_common(nullptr, sv[1], a);
	free(a);
	uint8_t ctl[512];
	mirror::wire::cntrl_out c;
	c.dbs = db_table;
	c.keepalive = 0;
	size_t n = mirror::wire::put_cntrl2(ctl, c);
	if (send(sv[0], ctl, n, MSG_NOSIGNAL) != static_cast<ssize_t>(n))
		abort();
	for (int i = 0; i < 50 && !mirror_connected(); i++)
		__evLoopOnce(ev, 0);
	if (!mirror_connected())
		abort();
	/* Two items wait for answers: handles 0 and 1. */
	mirror_add(&items[0].node, 1);
	mirror_add(&items[1].node, 1);
	for (int i = 0; i < 5; i++) {
		__evLoopOnce(ev, 0);
		drain(sv[0]);
	}

	if (size > 0 && send(sv[0], data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
		abort();
	/* Until the bytes are read and the jobs have finished their work. */
	for (int turns = 0; turns < 2000; turns++) {
		__evLoopOnce(ev, 0);
		drain(sv[0]);
		if (!mirror_connected())
			break;
		if (pending(sv[1]) == 0 && mirror_q.rx_head == nullptr &&
		    mirror_q.decode_job == nullptr && mirror_q.flush_job == nullptr &&
		    turns > 5)
			break;
	}
	close(sv[0]);
	for (int i = 0; i < 50 && mirror_connected(); i++)
		__evLoopOnce(ev, 0);
	/* A close answers every waiting item and stops every resync. */
	for (item &it : items)
		if (it.locks != 0 || it.node.mdn_queue_entry != nullptr)
			abort();
	if (mirror_q.len != 0 || mirror_q.handles->count() != 0)
		abort();
	return 0;
}
