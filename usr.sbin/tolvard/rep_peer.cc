/*
 * tolvard-rep-peer: the far end of tolvard's record channel for the
 * two-engine tests.  It takes the engine's role from the platform, as
 * the daemons do, connects or listens, and once the link is up sends each
 * record given on the command line (in hex) on the "TOLVARD session"
 * class with an acknowledgement wanted.  It prints "acked <n> <reason>"
 * per record and exits 0 when every record was acknowledged by the peer,
 * 1 when the link was lost first.
 *
 * usage: tolvard-rep-peer hex-record ...
 */
#include <orx/mirror_data.h>
#include <platform/chassis.h>
#include <platform/ev.h>
#include <platform/trace.h>
#include <timers/otimer.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct item {
	mirror_data_node node;
	std::vector<uint8_t> bytes;
	size_t number;
};

std::vector<item> items;
size_t acked;
bool sent;

item *item_of(mirror_data_node *n)
{
	for (item &it : items)
		if (&it.node == n)
			return &it;
	abort();
}

void nothing(mirror_data_node *)
{
}

int encode(mirror_data_node *n, uint8_t *buf, uint32_t room)
{
	item *it = item_of(n);
	if (it->bytes.size() > room)
		return 0;
	memcpy(buf, it->bytes.data(), it->bytes.size());
	return (int)it->bytes.size();
}

void decode(mirror_recvd_data *)
{
}

mirror_data_node *no_next(mirror_data_node *)
{
	return nullptr;
}

void ack(mirror_data_node *n, int reason)
{
	printf("acked %zu %d\n", item_of(n)->number, reason);
	fflush(stdout);
	if (reason != 0)
		exit(1);
	if (++acked == items.size())
		exit(0);
}

void state(int s)
{
	printf("state %d\n", s);
	fflush(stdout);
	if (s == MIRROR_STATE_DOWN && sent)
		exit(1);
	if (s != MIRROR_STATE_UP || sent)
		return;
	sent = true;
	for (item &it : items)
		if (mirror_add(&it.node, 1) != 2) {
			printf("not queued %zu\n", it.number);
			exit(1);
		}
}

bool unhex(const char *s, std::vector<uint8_t> *out)
{
	size_t n = strlen(s);
	if (n % 2 != 0)
		return false;
	for (size_t i = 0; i < n; i += 2) {
		char b[3] = {s[i], s[i + 1], 0};
		char *end;
		unsigned long v = strtoul(b, &end, 16);
		if (*end != '\0')
			return false;
		out->push_back((uint8_t)v);
	}
	return true;
}

void timer_fatal(const char *message)
{
	fprintf(stderr, "timer failure: %s\n", message);
	abort();
}

const mirror_db_entry db_table[] = {
	{0, "end_of_db"},
	{1, "mirror_ack_data"},
	{2, "TOLVARD session"},
	{0, nullptr},
};

mirror_reg_entry session_class;

} // namespace

int main(int argc, char **argv)
{
	if (argc < 2) {
		fprintf(stderr, "usage: tolvard-rep-peer hex-record ...\n");
		return 2;
	}
	items.resize((size_t)argc - 1);
	for (int i = 1; i < argc; i++) {
		item &it = items[(size_t)i - 1];
		it.number = (size_t)i;
		if (!unhex(argv[i], &it.bytes) || it.bytes.empty()) {
			fprintf(stderr, "tolvard-rep-peer: bad record %s\n", argv[i]);
			return 2;
		}
		mirror_data_node_init(&it.node, 2);
	}
	evContext ev;
	if (__evCreate(&ev) != 0)
		return 1;
	mirror_state st{};
	st.mirror_db_table = db_table;
	st.MIRROR_DATA_LAST = 3;
	st.mirror_ack_id = 1;
	st.mirror_eod_id = 0;
	st.port = MIRROR_PORT;
	st.is_master = (uint8_t)nmchassis_is_generic_protocol_master();
	st.mirror_eventlib_context = ev;
	st.mirror_timer_context = otimer_context_create(ev, timer_fatal);
	st.trace = daemon_trace_initialize("/var/log/tolvard-rep-peer");
	if (mirror_setup(&st) != 0)
		return 1;
	session_class.mirror_data_lock_func = nothing;
	session_class.mirror_data_unlock_func = nothing;
	session_class.mirror_data_encode_func = encode;
	session_class.mirror_data_decode_func = decode;
	session_class.mirror_data_get_next_func = no_next;
	session_class.mirror_data_state_func = state;
	session_class.mirror_data_ack_func = ack;
	session_class.mirror_receiver = MIRROR_RECEIVER_BOTH;
	session_class.mirror_data_id = 2;
	mirror_register_data(&session_class);
	mirror_start();
	__evMainLoopSync(ev);
	return 1;
}
