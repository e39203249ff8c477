/*
 * The data queues in this process, over a socketpair whose other end the
 * test plays as the peer engine: it answers the control exchange, reads
 * what the library sends with the stream parsers, and writes records,
 * acknowledgements and resync requests of its own.
 *
 * The library keeps one link per process, so the tests share it and each
 * one starts from a fresh connection.  After every test, every item that
 * the library locked must be unlocked exactly as often.
 */
#include "mirror_direct.h"
#include "mirror_host.h"
#include "mirror_internal.h"
#include "mirror_queue.h"
#include "mirror_wire.h"

#include <orx/mirror_data.h>
#include <platform/ev.h>
#include <platform/logging.h>
#include <platform/paths.h>
#include <platform/trace.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace mirror;
using bytes = std::vector<uint8_t>;

namespace {

evContext ev;
otimer_context_t *timers;
std::string root;
std::vector<int> states;

const mirror_db_entry db_table[] = {
	{2, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{3, "Late class"},
	{0, nullptr},
};

/* An application item: the node head first, as the daemons embed it. */
struct item {
	mirror_data_node node{};
	int	key = 0;
	std::string content;
	int	locks = 0;
	int	lock_calls = 0;
	int	unlock_calls = 0;
	int	encode_result = 1;	/* 1 normal, 0 no room, -1 refuse */
	std::vector<int> acks;		/* reasons, in order */
	std::vector<int> locks_at_ack;
};

std::vector<std::unique_ptr<item>> items;	/* every item ever made */
std::vector<item *> walk;			/* what a resync walks */
std::vector<std::pair<uint32_t, int>> eods;	/* count, is_receiver */
struct decoded {
	uint8_t	data_id;
	uint8_t	op;
	std::string data;
};
std::vector<decoded> received;

item *
of(mirror_data_node *n)
{
	return reinterpret_cast<item *>(n);
}

mirror_reg_entry session_class;
mirror_reg_entry late_class;

/* The application's side of a class: every call is counted. */
void
fill_class(mirror_reg_entry *e, uint8_t id)
{
	e->mirror_data_lock_func = [](mirror_data_node *n) {
		of(n)->locks++;
		of(n)->lock_calls++;
	};
	e->mirror_data_unlock_func = [](mirror_data_node *n) {
		EXPECT_GT(of(n)->locks, 0) << "unlock of item " << of(n)->key << " not held";
		of(n)->locks--;
		of(n)->unlock_calls++;
	};
	e->mirror_data_encode_func = [](mirror_data_node *n, uint8_t *buf, uint32_t room) {
		item *it = of(n);
		if (it->encode_result <= 0 || it->content.size() > room)
			return std::min(it->encode_result, 0);
		std::memcpy(buf, it->content.data(), it->content.size());
		return static_cast<int>(it->content.size());
	};
	e->mirror_data_decode_func = [](mirror_recvd_data *rd) {
		received.push_back({rd->data_id, rd->op,
		    std::string(reinterpret_cast<const char *>(rd->data), rd->got_len)});
	};
	e->mirror_data_get_next_func = [](mirror_data_node *n) -> mirror_data_node * {
		if (n == nullptr)
			return walk.empty() ? nullptr : &walk.front()->node;
		for (size_t i = 0; i + 1 < walk.size(); i++)
			if (&walk[i]->node == n)
				return &walk[i + 1]->node;
		return nullptr;
	};
	e->mirror_data_ack_func = [](mirror_data_node *n, int reason) {
		of(n)->acks.push_back(reason);
		of(n)->locks_at_ack.push_back(of(n)->locks);
	};
	e->mirror_receiver = MIRROR_RECEIVER_BOTH;
	e->mirror_data_id = id;
}

item *
new_item(int key, const std::string &content, uint8_t id = 2)
{
	items.push_back(std::make_unique<item>());
	item *it = items.back().get();
	it->key = key;
	it->content = content;
	mirror_data_node_init(&it->node, id);
	return it;
}

bool
pump_until(const std::function<bool()> &pred, double seconds = 20)
{
	auto end = std::chrono::steady_clock::now() +
	    std::chrono::milliseconds(static_cast<long>(seconds * 1000));
	while (!pred()) {
		if (std::chrono::steady_clock::now() > end)
			return false;
		__evLoopOnce(ev, 5);
	}
	return true;
}

void
pump_turns(int n)
{
	for (int i = 0; i < n; i++)
		__evLoopOnce(ev, 1);
}

class QueueEnv : public ::testing::Environment {
public:
	void SetUp() override
	{
		/* A death test's child runs this again: it shares the root. */
		const char *inherited = getenv("TOLVAR_ROOT");
		char tmpl[] = "/tmp/mirror-queue-test.XXXXXX";
		if (inherited != nullptr && strstr(inherited, "/mirror-queue-test.") != nullptr)
			root = inherited;
		else
			root = mkdtemp(tmpl);
		setenv("TOLVAR_ROOT", root.c_str(), 1);
		setenv("TOLVAR_TEST_TIMESCALE", "20", 1);
		tolvar_mkdirs((root + "/etc/tolvar").c_str(), 0755);
		std::ofstream(root + "/etc/tolvar/platform")
		    << "role = master\npeer_address = 127.0.0.1\nmaxsockbuf = 1048576\n";
		ASSERT_EQ(__evCreate(&ev), 0);
		timers = otimer_context_create(ev, [](const char *m) { FAIL() << m; });

		/* The listener after a close needs a port nobody uses. */
		int fd = socket(AF_INET, SOCK_STREAM, 0);
		struct sockaddr_in sin = {};
		sin.sin_family = AF_INET;
		sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		bind(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin));
		socklen_t len = sizeof(sin);
		getsockname(fd, reinterpret_cast<struct sockaddr *>(&sin), &len);
		close(fd);

		mirror_state st{};
		st.mirror_db_table = db_table;
		st.MIRROR_DATA_LAST = 4;
		st.mirror_ack_id = 1;
		st.mirror_eod_id = 0;
		st.port = ntohs(sin.sin_port);
		st.is_master = 1;
		st.mirror_eventlib_context = ev;
		st.mirror_timer_context = timers;
		st.trace = daemon_trace_initialize("/var/log/mirror-queue-test");
		ASSERT_EQ(mirror_setup(&st), 0);
		fill_class(&session_class, 2);
		session_class.mirror_data_state_func = [](int state) { states.push_back(state); };
		session_class.mirror_data_eod_func = [](uint32_t count, int is_receiver) {
			eods.emplace_back(count, is_receiver);
		};
		ASSERT_EQ(mirror_register_data(&session_class), 0);
		ASSERT_EQ(mirror_start(), 0);
	}

	void TearDown() override
	{
		mirror_terminate(nullptr);
		std::filesystem::remove_all(root);
	}
};

const auto *env = ::testing::AddGlobalTestEnvironment(new QueueEnv);

struct peer_record {
	wire::record_def def;
	bytes	data;

	std::string text() const { return std::string(data.begin(), data.end()); }
};

class collecting_sink : public wire::data_sink {
public:
	std::vector<peer_record> records;
	std::vector<wire::record_def> acks;
	std::vector<uint16_t> resync_reqs;

	void record(const wire::record_def &def, std::span<const uint8_t> data) override
	{
		records.push_back({def, bytes(data.begin(), data.end())});
	}
	void ack(const wire::record_def &def) override { acks.push_back(def); }
	void resync_req(uint16_t id) override { resync_reqs.push_back(id); }
	void unknown(unsigned) override { ADD_FAILURE() << "unknown data TLV"; }
};

/* The other engine, on the far end of a socketpair. */
class peer {
public:
	int fd = -1;
	bytes in;
	collecting_sink got;
	bool closed = false;
	bool reading = true;

	peer() { open(); }

	~peer()
	{
		if (fd >= 0)
			close(fd);
		pump_until([] { return !mirror_connected(); }, 5);
	}

	void open()
	{
		int sv[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
		fd = sv[0];
		fcntl(fd, F_SETFL, O_NONBLOCK);
		/* The peer engine's address: anyone else is refused. */
		mirror_addr *a = mirror_addr_v4(0, htonl(INADDR_LOOPBACK));
		mirror_listen_accept_common(nullptr, sv[1], a);
		free(a);
		uint8_t buf[1024];
		wire::cntrl_out c;
		c.dbs = db_table;
		c.keepalive = 0;	/* no expiry while a test thinks */
		size_t n = wire::put_cntrl2(buf, c);
		send_bytes(bytes(buf, buf + n));
		ASSERT_TRUE(pump_until([] { return mirror_connected() != 0; }));
	}

	/* Read and parse what the library sent; false once it closed. */
	bool poll()
	{
		uint8_t buf[65536];
		while (reading && !closed) {
			ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
			if (n > 0) {
				in.insert(in.end(), buf, buf + n);
				continue;
			}
			if (n == 0 || errno != EAGAIN)
				closed = true;
			break;
		}
		size_t off = 0;
		for (;;) {
			wire::frame f = wire::next_main(std::span(in).subspan(off), 0x20000);
			EXPECT_EQ(f.err, wire::error::none);
			if (f.whole == 0 || f.err != wire::error::none)
				break;
			if (f.type == MAIN_TLV_DATA_MIRROR) {
				EXPECT_EQ(wire::parse_data(f.value, got), wire::error::none);
			}
			off += f.whole;
		}
		in.erase(in.begin(), in.begin() + static_cast<long>(off));
		return !closed;
	}

	bool wait(const std::function<bool()> &pred)
	{
		return pump_until([&] {
			poll();
			return pred();
		});
	}

	void send_bytes(const bytes &b)
	{
		size_t done = 0;
		while (done < b.size()) {
			ssize_t n = send(fd, b.data() + done, b.size() - done, MSG_NOSIGNAL);
			if (n > 0)
				done += static_cast<size_t>(n);
			else
				__evLoopOnce(ev, 1);	/* let the library read */
		}
	}

	void send_record(uint16_t id, const std::string &text, uint8_t op = MIRROR_OP_ADD,
	    const uint8_t *handle = nullptr)
	{
		wire::record_def def;
		def.data_id = id;
		def.op = op;
		if (handle != nullptr) {
			def.ack = MIRROR_ACK_WANTED;
			std::memcpy(def.handle, handle, MIRROR_DATA_HANDLE_LEN);
			def.handle_len = MIRROR_DATA_HANDLE_LEN;
		}
		bytes buf(text.size() + 64);
		size_t n = wire::put_record_main(buf, def,
		    std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
		buf.resize(n);
		send_bytes(buf);
	}

	void send_ack(const wire::record_def &acked, const uint8_t *handle, uint8_t len = 4)
	{
		wire::record_def def = acked;
		def.ack = MIRROR_ACK_REPLY;
		std::memcpy(def.handle, handle, MIRROR_DATA_HANDLE_LEN);
		uint8_t buf[64];
		size_t n = wire::put_record_main(buf, def, {});
		/* A shorter handle: the definition's length says so. */
		if (len < MIRROR_DATA_HANDLE_LEN) {
			n -= MIRROR_DATA_HANDLE_LEN - len;
			n &= ~size_t(3);
			wire::put_header(buf, MAIN_TLV_DATA_MIRROR, n - 4);
			wire::put_header(buf + 4, MIRROR_DATA_DEF_TLV, MIRROR_DATA_DEF_OVERHEAD + len);
		}
		send_bytes(bytes(buf, buf + n));
	}

	void send_resync_req(uint16_t id)
	{
		uint8_t buf[12];
		wire::put_resync_req_main(buf, id);
		send_bytes(bytes(buf, buf + 12));
	}

	/* Records of one class, in arrival order. */
	std::vector<peer_record> of_class(uint16_t id) const
	{
		std::vector<peer_record> out;
		for (const peer_record &r : got.records)
			if (r.def.data_id == id)
				out.push_back(r);
		return out;
	}
};

class Queues : public ::testing::Test {
protected:
	void SetUp() override
	{
		eods.clear();
		received.clear();
		walk.clear();
	}

	void TearDown() override
	{
		/* However the test ended, the link is down now and the library
		 * holds nothing. */
		ASSERT_TRUE(pump_until([] { return !mirror_connected(); }));
		EXPECT_EQ(mirror_q.len, 0u);
		for (int q = 0; q < MIRRORQ_MAX; q++) {
			EXPECT_EQ(mirror_q.q[q].mirq_n_queued, 0u) << "queue " << q;
		}
		EXPECT_EQ(mirror_q.handles->count(), 0u);
		for (auto &it : items) {
			EXPECT_EQ(it->locks, 0) << "item " << it->key;
			EXPECT_EQ(it->lock_calls, it->unlock_calls) << "item " << it->key;
			EXPECT_EQ(it->node.mdn_queue_entry, nullptr) << "item " << it->key;
		}
		items.clear();
	}
};

uint32_t
handle_of(const wire::record_def &def)
{
	uint32_t h;
	std::memcpy(&h, def.handle, sizeof(h));
	return h;
}

} // namespace

TEST_F(Queues, ConnectionAsksForTheDatabaseOfEveryReceivedClass)
{
	peer p;
	ASSERT_TRUE(p.wait([&] { return !p.got.resync_reqs.empty(); }));
	/* Class 2 only: the library classes never resync. */
	EXPECT_EQ(p.got.resync_reqs, std::vector<uint16_t>{2});
	EXPECT_TRUE(mirror_operation_will_succeed(2));
	EXPECT_FALSE(mirror_operation_will_succeed(3));	/* not registered */
}

TEST_F(Queues, ItemsLeaveInOrderAndAReaddedItemMovesToTheTail)
{
	peer p;
	item *a = new_item(1, "a-first");
	item *b = new_item(2, "b");
	item *c = new_item(3, "c");
	/* No turn of the loop in between: all four calls meet queued items. */
	EXPECT_EQ(mirror_add(&a->node, 0), 1);
	EXPECT_EQ(mirror_add(&b->node, 0), 1);
	EXPECT_EQ(mirror_add(&c->node, 0), 1);
	a->content = "a-latest";
	EXPECT_EQ(mirror_update(&a->node, 0), 1);
	ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() >= 3; }));
	pump_turns(5);
	p.poll();
	auto recs = p.of_class(2);
	ASSERT_EQ(recs.size(), 3u);
	EXPECT_EQ(recs[0].text(), "b");
	EXPECT_EQ(recs[1].text(), "c");
	EXPECT_EQ(recs[2].text(), "a-latest");
	EXPECT_EQ(recs[2].def.op, MIRROR_OP_UPDATE);
	/* Held once while queued, however often queued; the fixture checks
	 * that it was given back. */
	for (item *it : {a, b, c})
		EXPECT_EQ(it->lock_calls, 1);
	/* A delete goes out as such. */
	EXPECT_EQ(mirror_delete(&b->node, 0), 1);
	ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 4; }));
	EXPECT_EQ(p.of_class(2)[3].def.op, MIRROR_OP_DELETE);
}

TEST_F(Queues, AnAcknowledgedItemHearsOnceAfterThePeerAnswers)
{
	peer p;
	item *x = new_item(1, "wants an answer");
	item *y = new_item(2, "also");
	EXPECT_EQ(mirror_add(&x->node, 1), 2);
	EXPECT_EQ(mirror_add(&y->node, 1), 2);
	ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 2; }));
	auto recs = p.of_class(2);
	EXPECT_EQ(recs[0].def.ack, MIRROR_ACK_WANTED);
	EXPECT_NE(handle_of(recs[0].def), handle_of(recs[1].def));
	pump_turns(5);
	EXPECT_EQ(mirror_q.q[MIRRORQ_ACK_WAIT].mirq_n_queued, 2u);
	EXPECT_TRUE(x->acks.empty());
	EXPECT_EQ(x->locks, 1);	/* held while it waits */

	/* Answered out of order: each item hears about its own. */
	p.send_ack(recs[1].def, recs[1].def.handle);
	ASSERT_TRUE(pump_until([&] { return !y->acks.empty(); }));
	EXPECT_TRUE(x->acks.empty());
	p.send_ack(recs[0].def, recs[0].def.handle);
	ASSERT_TRUE(pump_until([&] { return !x->acks.empty(); }));
	EXPECT_EQ(x->acks, std::vector<int>{0});
	EXPECT_EQ(y->acks, std::vector<int>{0});
	EXPECT_EQ(x->locks_at_ack, std::vector<int>{1});	/* told before the unlock */
	EXPECT_TRUE(mirror_connected());
}

/*
 * The two-engine tests kill a peer with items waiting; here the library's
 * side is watched: each item is told before it is unlocked, and the
 * answer the library still owed the peer is dropped with the link.
 */
TEST_F(Queues, LinkLossAnswersEveryWaitingItemOnceWithReasonOne)
{
	peer p;
	ASSERT_TRUE(p.wait([&] { return !p.got.resync_reqs.empty(); }));
	/* The peer stops reading: the socket fills and items stay queued. */
	p.reading = false;
	std::string big(60000, 'x');
	for (int i = 0; i < 40 && mirror_q.q[MIRRORQ_DATA].mirq_n_queued < 2; i++) {
		EXPECT_EQ(mirror_add(&new_item(i, big)->node, 1), 2);
		pump_turns(3);
	}
	ASSERT_GE(mirror_q.q[MIRRORQ_DATA].mirq_n_queued, 2u);
	ASSERT_GE(mirror_q.q[MIRRORQ_ACK_WAIT].mirq_n_queued, 1u);
	/* A record of the peer that wants an answer: it cannot leave either. */
	uint8_t handle[4] = {9, 8, 7, 6};
	p.send_record(2, "from the peer", MIRROR_OP_ADD, handle);
	ASSERT_TRUE(pump_until([] { return mirror_q.q[MIRRORQ_ACK].mirq_n_queued == 1; }));

	states.clear();
	close(p.fd);
	p.fd = -1;
	ASSERT_TRUE(pump_until([] { return !mirror_connected(); }));
	EXPECT_EQ(states, std::vector<int>{MIRROR_STATE_DOWN});
	for (auto &it : items) {
		EXPECT_EQ(it->acks, std::vector<int>{1}) << "item " << it->key;
		EXPECT_EQ(it->locks_at_ack, std::vector<int>{1}) << "item " << it->key;
	}
}

TEST_F(Queues, ReaddingAWaitingItemReplacesItsWait)
{
	/* Without an answer wanted the old wait's callback is dropped; with
	 * one, a fresh wait starts.  Either way the old answer finds nobody. */
	for (int again_ack : {0, 1}) {
		SCOPED_TRACE(again_ack);
		peer p;
		item *x = new_item(again_ack, "v1");
		EXPECT_EQ(mirror_add(&x->node, 1), 2);
		ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 1; }));
		pump_turns(3);
		x->content = "v2";
		EXPECT_EQ(mirror_update(&x->node, again_ack), again_ack + 1);
		ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 2; }));
		auto recs = p.of_class(2);
		EXPECT_EQ(recs[1].text(), "v2");
		EXPECT_EQ(recs[1].def.ack, again_ack ? MIRROR_ACK_WANTED : MIRROR_ACK_NONE);
		pump_turns(3);
		EXPECT_EQ(x->locks, again_ack);
		p.send_ack(recs[0].def, recs[0].def.handle);
		ASSERT_TRUE(pump_until([&] {
			return mirror_q.q[MIRRORQ_ACK_WAIT].mirq_n_queued == unsigned(again_ack);
		}));
		pump_turns(5);
		EXPECT_TRUE(x->acks.empty());
		EXPECT_TRUE(mirror_connected());
		if (again_ack) {
			EXPECT_NE(handle_of(recs[0].def), handle_of(recs[1].def));
			p.send_ack(recs[1].def, recs[1].def.handle);
			ASSERT_TRUE(pump_until([&] { return !x->acks.empty(); }));
			EXPECT_EQ(x->acks, std::vector<int>{0});
		}
	}
}

TEST_F(Queues, RefusedAndUnqueuedItems)
{
	peer p;
	item *refused = new_item(1, "never");
	refused->encode_result = -1;
	item *refused_ack = new_item(2, "never either");
	refused_ack->encode_result = -1;
	item *gone = new_item(3, "taken back");
	item *after = new_item(4, "after");
	EXPECT_EQ(mirror_add(&refused->node, 0), 1);
	EXPECT_EQ(mirror_add(&refused_ack->node, 1), 2);
	EXPECT_EQ(mirror_add(&gone->node, 1), 2);
	EXPECT_EQ(mirror_add(&after->node, 0), 1);
	mirror_unqueue(&gone->node);
	EXPECT_EQ(gone->locks, 0);
	ASSERT_TRUE(p.wait([&] { return !p.of_class(2).empty(); }));
	pump_turns(5);
	p.poll();
	auto recs = p.of_class(2);
	ASSERT_EQ(recs.size(), 1u);
	EXPECT_EQ(recs[0].text(), "after");
	/* A refused item that wanted an answer is told it was not delivered. */
	EXPECT_EQ(refused_ack->acks, std::vector<int>{1});
	EXPECT_TRUE(refused->acks.empty());
	EXPECT_TRUE(gone->acks.empty());
}

TEST_F(Queues, AnItemThatDoesNotFitWaitsForTheNextBuffer)
{
	peer p;
	item *a = new_item(1, std::string(70000, 'a'));
	item *b = new_item(2, std::string(70000, 'b'));
	item *c = new_item(3, "c");
	EXPECT_EQ(mirror_add(&a->node, 0), 1);
	EXPECT_EQ(mirror_add(&b->node, 1), 2);
	EXPECT_EQ(mirror_add(&c->node, 0), 1);
	ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 3; }));
	auto recs = p.of_class(2);
	EXPECT_EQ(recs[0].data.size(), 70000u);
	EXPECT_EQ(recs[1].data, bytes(70000, 'b'));
	EXPECT_EQ(recs[2].text(), "c");
	p.send_ack(recs[1].def, recs[1].def.handle);
	ASSERT_TRUE(pump_until([&] { return !b->acks.empty(); }));
}

TEST_F(Queues, ResyncWalksEveryItemAcrossRunsThenEndOfDatabase)
{
	peer p;
	for (int i = 0; i < 2500; i++)
		walk.push_back(new_item(i, "item " + std::to_string(i)));
	/* One item went out with an answer wanted: while it waits it is
	 * still queued, and the walk passes it by. */
	EXPECT_EQ(mirror_add(&walk[1]->node, 1), 2);
	ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 1; }));
	uint32_t resyncs = mirror_stats()->ms_resyncs;
	p.send_resync_req(2);
	ASSERT_TRUE(p.wait([&] { return !p.of_class(0).empty(); }));
	auto recs = p.of_class(2);
	ASSERT_EQ(recs.size(), 2500u);
	EXPECT_EQ(recs[0].text(), "item 1");
	EXPECT_EQ(recs[0].def.op, MIRROR_OP_ADD);
	for (int i = 1; i < 2500; i++) {
		int key = i == 1 ? 0 : i;
		ASSERT_EQ(recs[static_cast<size_t>(i)].text(), "item " + std::to_string(key));
		ASSERT_EQ(recs[static_cast<size_t>(i)].def.op, MIRROR_OP_RESYNC);
		ASSERT_EQ(recs[static_cast<size_t>(i)].def.ack, MIRROR_ACK_NONE);
	}
	uint16_t id;
	uint32_t count;
	unsigned type;
	peer_record eod = p.of_class(0)[0];
	ASSERT_TRUE(wire::parse_eod(eod.data, &id, &count, &type));
	EXPECT_EQ(id, 2);
	EXPECT_EQ(count, 2500u);
	EXPECT_EQ(mirror_stats()->ms_resyncs, resyncs + 1);
	/* The class hears of its end of database once the peer answers it. */
	EXPECT_EQ(eod.def.ack, MIRROR_ACK_WANTED);
	EXPECT_TRUE(eods.empty());
	p.send_ack(eod.def, eod.def.handle);
	ASSERT_TRUE(pump_until([] { return !eods.empty(); }));
	EXPECT_EQ(eods, (std::vector<std::pair<uint32_t, int>>{{2500, 0}}));
	EXPECT_EQ(walk[1]->locks, 1);
	p.send_ack(recs[0].def, recs[0].def.handle);
	ASSERT_TRUE(pump_until([&] { return !walk[1]->acks.empty(); }));
	/* The walk held the item it was to resume at, and gave it back. */
	EXPECT_GE(walk[1000]->lock_calls, 2);
	EXPECT_EQ(walk[1000]->locks, 0);
}

TEST_F(Queues, RecordsFromThePeerAreAppliedInOrderAndAnswered)
{
	peer p;
	uint8_t h1[4] = {0xAA, 0xBB, 0xCC, 0xDD};
	uint8_t h2[4] = {1, 2, 3, 4};
	p.send_record(2, "one");
	p.send_record(2, "two", MIRROR_OP_UPDATE, h1);
	p.send_record(2, "", MIRROR_OP_DELETE, h2);
	/* The end of the peer's database for class 2. */
	char eod[12];
	wire::put_eod(std::span(reinterpret_cast<uint8_t *>(eod), 12), 2, 3);
	uint8_t h3[4] = {0, 0, 0, 7};
	p.send_record(0, std::string(eod, 12), MIRROR_OP_ADD, h3);
	ASSERT_TRUE(pump_until([] { return !eods.empty(); }));
	ASSERT_EQ(received.size(), 3u);
	EXPECT_EQ(received[0].data, "one");
	EXPECT_EQ(received[1].op, MIRROR_OP_UPDATE);
	EXPECT_EQ(received[2].data, "");
	EXPECT_EQ(received[2].op, MIRROR_OP_DELETE);
	EXPECT_EQ(eods, (std::vector<std::pair<uint32_t, int>>{{3, 1}}));
	/* The answers carry our handles byte for byte, with id and operation. */
	ASSERT_TRUE(p.wait([&] { return p.got.acks.size() == 3; }));
	EXPECT_EQ(bytes(p.got.acks[0].handle, p.got.acks[0].handle + 4), bytes(h1, h1 + 4));
	EXPECT_EQ(p.got.acks[0].data_id, 2);
	EXPECT_EQ(p.got.acks[0].op, MIRROR_OP_UPDATE);
	EXPECT_EQ(bytes(p.got.acks[1].handle, p.got.acks[1].handle + 4), bytes(h2, h2 + 4));
	EXPECT_EQ(p.got.acks[1].op, MIRROR_OP_DELETE);
	EXPECT_EQ(p.got.acks[2].data_id, 0);
	EXPECT_EQ(bytes(p.got.acks[2].handle, p.got.acks[2].handle + 4), bytes(h3, h3 + 4));
}

TEST_F(Queues, ABacklogOfSmallRecordsHoldsReadingAndLosesNothing)
{
	peer p;
	/* Many tiny records in few main TLVs: far more than one turn decodes. */
	const int total = 60000;
	bytes stream;
	for (int i = 0; i < total;) {
		bytes main(RPC_TLV20NS_SIZE);
		for (int k = 0; k < 3000 && i < total; k++, i++) {
			wire::record_def def;
			def.data_id = 2;
			def.op = MIRROR_OP_ADD;
			std::string t = std::to_string(i);
			uint8_t rec[64];
			size_t n = wire::put_record(rec, def,
			    std::span(reinterpret_cast<const uint8_t *>(t.data()), t.size()));
			main.insert(main.end(), rec, rec + n);
		}
		wire::put_header(main.data(), MAIN_TLV_DATA_MIRROR, main.size() - RPC_TLV20NS_SIZE);
		stream.insert(stream.end(), main.begin(), main.end());
	}
	bool held = false;
	size_t done = 0;
	while (done < stream.size()) {
		ssize_t n = send(p.fd, stream.data() + done, stream.size() - done, MSG_NOSIGNAL);
		if (n > 0)
			done += static_cast<size_t>(n);
		__evLoopOnce(ev, 1);
		held = held || mirror_q.rx_backlogged;
		EXPECT_LE(mirror_q.rx_count, static_cast<uint32_t>(MIRROR_RX_BACKLOG_RECORDS + 3000 * 40));
	}
	ASSERT_TRUE(pump_until([&] { return received.size() == total; }, 60));
	EXPECT_TRUE(held);
	for (int i = 0; i < total; i++)
		ASSERT_EQ(received[static_cast<size_t>(i)].data, std::to_string(i));
	EXPECT_FALSE(mirror_q.rx_backlogged);
	EXPECT_TRUE(mirror_connected());
}

TEST_F(Queues, AcknowledgementWithAHandleNeverGivenClosesTheLink)
{
	struct {
		const char *name;
		std::function<void(peer &)> send;
	} cases[] = {
	    {"unknown handle", [](peer &p) {
		    wire::record_def def;
		    def.data_id = 2;
		    def.op = MIRROR_OP_ADD;
		    uint8_t h[4] = {0xEF, 0xBE, 0xAD, 0xDE};
		    p.send_ack(def, h);
	    }},
	    {"answered twice", [](peer &p) {
		    item *x = new_item(1, "once");
		    EXPECT_EQ(mirror_add(&x->node, 1), 2);
		    ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 1; }));
		    peer_record r = p.of_class(2)[0];
		    p.send_ack(r.def, r.def.handle);
		    ASSERT_TRUE(pump_until([&] { return !x->acks.empty(); }));
		    p.send_ack(r.def, r.def.handle);
	    }},
	    {"short handle", [](peer &p) {
		    item *x = new_item(1, "short");
		    EXPECT_EQ(mirror_add(&x->node, 1), 2);
		    ASSERT_TRUE(p.wait([&] { return p.of_class(2).size() == 1; }));
		    peer_record r = p.of_class(2)[0];
		    p.send_ack(r.def, r.def.handle, 2);
	    }},
	    {"record in the acknowledgement class", [](peer &p) {
		    p.send_record(1, "bogus");
	    }},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.name);
		peer p;
		uint32_t errors = mirror_stats()->ms_stream_errors;
		c.send(p);
		ASSERT_TRUE(p.wait([&] { return p.closed; }));
		EXPECT_EQ(mirror_stats()->ms_stream_errors, errors + 1);
		ASSERT_TRUE(pump_until([] { return !mirror_connected(); }));
		for (auto &it : items)
			EXPECT_LE(it->acks.size(), 1u);
	}
	std::stringstream events;
	events << std::ifstream(tolvar::path("/var/log/events")).rdbuf();
	EXPECT_NE(events.str().find("MIRROR_STREAM_ERROR"), std::string::npos);
}

TEST_F(Queues, StrayResyncRequestsAreIgnored)
{
	peer p;
	for (uint16_t id : {0, 1, 3, 99, 500})
		p.send_resync_req(id);
	p.send_record(2, "still here");
	ASSERT_TRUE(pump_until([] { return !received.empty(); }));
	EXPECT_TRUE(mirror_connected());
	pump_turns(10);
	p.poll();
	EXPECT_TRUE(p.of_class(0).empty());
}

TEST_F(Queues, ResyncRequestWithoutRoomGoesOutWhenTheBufferDrains)
{
	peer p;
	ASSERT_TRUE(p.wait([&] { return p.got.resync_reqs.size() == 1; }));
	/* The peer stops reading; records fill the socket, then the buffer,
	 * to its last byte. */
	p.reading = false;
	std::vector<uint8_t> rec(996, 'r');
	int rc;
	while ((rc = mirror_direct_send(2, MIRROR_OP_ADD, rec.data(), 996)) == 0)
		;
	ASSERT_EQ(rc, EAGAIN);
	for (;;) {
		uint32_t room = mirror_l.effective_tx - mirror_l.tx_len;
		if (room < 20)
			break;
		ASSERT_EQ(mirror_direct_send(2, MIRROR_OP_ADD, rec.data(),
		    std::min<uint32_t>(room - 20, 996)), 0);
	}
	ASSERT_LT(mirror_l.effective_tx - mirror_l.tx_len, 12u);
	EXPECT_EQ(mirror_request_db_resync(2), EAGAIN);
	/* Nothing is lost: the request leaves once the peer reads again. */
	p.reading = true;
	ASSERT_TRUE(p.wait([&] { return p.got.resync_reqs.size() == 2; }));
	EXPECT_EQ(p.got.resync_reqs[1], 2);
	EXPECT_TRUE(mirror_connected());
}

/* Runs last of the link tests: class 3 stays registered afterwards. */
TEST_F(Queues, ResyncRequestForAnUnregisteredClassRunsWhenItRegisters)
{
	peer p;
	p.send_resync_req(3);
	pump_turns(20);
	p.poll();
	EXPECT_TRUE(p.of_class(0).empty());
	walk.push_back(new_item(1, "late one", 3));
	walk.push_back(new_item(2, "late two", 3));
	fill_class(&late_class, 3);
	late_class.mirror_data_eod_func = [](uint32_t, int) {};
	ASSERT_EQ(mirror_register_data(&late_class), 0);
	ASSERT_TRUE(p.wait([&] { return !p.of_class(0).empty(); }));
	auto recs = p.of_class(3);
	ASSERT_EQ(recs.size(), 2u);
	EXPECT_EQ(recs[1].text(), "late two");
	uint16_t id;
	uint32_t count;
	unsigned type;
	ASSERT_TRUE(wire::parse_eod(p.of_class(0)[0].data, &id, &count, &type));
	EXPECT_EQ(id, 3);
	EXPECT_EQ(count, 2u);
	/* As a receiver of class 3 the library asks for the peer's copy too. */
	ASSERT_TRUE(p.wait([&] {
		for (uint16_t r : p.got.resync_reqs)
			if (r == 3)
				return true;
		return false;
	}));
}

TEST(QueuesDeathTest, MisuseStopsTheProcess)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	item queued;
	mirror_q_entry fake{};
	queued.node.mdn_queue_entry = &fake;
	EXPECT_DEATH(mirror_data_node_init(&queued.node, 2), "node_ptr->mdn_queue_entry == NULL");
	item stray;
	stray.node.mdn_data_id = 77;
	EXPECT_DEATH(mirror_add(&stray.node, 0), "registry");
	queued.node.mdn_queue_entry = nullptr;
	/* An item its encoder never fits, even into an empty buffer. */
	EXPECT_DEATH({
		peer p;
		item *x = new_item(1, "never fits");
		x->encode_result = 0;
		mirror_add(&x->node, 0);
		pump_until([] { return false; }, 10);
	}, "mirror_tx_buffer_len != 0");
}

namespace {

std::vector<std::string> system_log;

/*
 * A task on a second event context is told in the system log under the
 * name of the function that allocates it, as an operator reads it.
 */
TEST_F(Queues, ASecondEventContextIsLoggedUnderTheAllocatorsName)
{
	evContext other;
	ASSERT_EQ(__evCreate(&other), 0);
	mirror_state st{};
	st.mirror_eventlib_context = other;
	st.mirror_timer_context = timers;
	system_log.clear();
	logging_register_logfunc([](int, const char *fmt, va_list ap) {
		char buf[512];
		vsnprintf(buf, sizeof(buf), fmt, ap);
		system_log.emplace_back(buf);
	});
	mirror_task *task = mirror_generic.task_alloc(&st, "Other", 1);
	logging_register_logfunc(nullptr);
	ASSERT_NE(task, nullptr);
	mirror_generic.task_delete(task);
	__evDestroy(other);
	ASSERT_EQ(system_log.size(), 1u);
	EXPECT_EQ(system_log[0].rfind("mirror_generic_task_alloc: multiple event "
	    "contexts used", 0), 0u) << system_log[0];
}

} // namespace
