/*
 * The connection engine in this process as master, against a peer played
 * by the test over a real TCP socket on loopback: the control exchange,
 * keepalives, and every kind of malformed stream.  The generic host's jobs
 * and wakeup pipe are tested here too, on the same event context.
 *
 * The library keeps one link per process, so the tests share it and run
 * in the order written; each one starts from a fresh connection.
 */
#include "mirror_host.h"
#include "mirror_internal.h"
#include "mirror_wire.h"

#include <orx/mirror_data.h>
#include <platform/ev.h>
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
#include <netinet/in.h>
#include <netinet/tcp.h>
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
uint16_t port;
std::string root;
std::vector<int> states;
std::vector<std::pair<int, std::string>> reports;
std::vector<std::pair<mirror::wire::record_def, bytes>> records;
mirror_reg_entry session_class;

const mirror_db_entry db_table[] = {
	{2, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

/* Turn the loop until pred holds; false after a generous wait. */
bool
pump_until(const std::function<bool()> &pred, double seconds = 20)
{
	auto end = std::chrono::steady_clock::now() +
	    std::chrono::milliseconds(static_cast<long>(seconds * 1000));
	while (!pred()) {
		if (std::chrono::steady_clock::now() > end)
			return false;
		__evLoopOnce(ev, 10);
	}
	return true;
}

uint16_t
free_port()
{
	int fd = socket(AF_INET, SOCK_STREAM, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	bind(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin));
	socklen_t len = sizeof(sin);
	getsockname(fd, reinterpret_cast<struct sockaddr *>(&sin), &len);
	close(fd);
	return ntohs(sin.sin_port);
}

bool
reported(int code, const std::string &text)
{
	for (auto &r : reports)
		if (r.first == code && r.second == text)
			return true;
	return false;
}

class LinkEnv : public ::testing::Environment {
public:
	void SetUp() override
	{
		char tmpl[] = "/tmp/mirror-link-test.XXXXXX";
		root = mkdtemp(tmpl);
		setenv("TOLVAR_ROOT", root.c_str(), 1);
		setenv("TOLVAR_TEST_TIMESCALE", "20", 1);
		tolvar_mkdirs((root + "/etc/tolvar").c_str(), 0755);
		std::ofstream(root + "/etc/tolvar/platform")
		    << "role = master\npeer_address = 127.0.0.1\nmaxsockbuf = 1048576\n";
		ASSERT_EQ(__evCreate(&ev), 0);
		timers = otimer_context_create(ev, [](const char *m) { FAIL() << m; });
		port = free_port();

		mirror_state st{};
		st.mirror_db_table = db_table;
		st.MIRROR_DATA_LAST = 3;
		st.mirror_ack_id = 1;
		st.mirror_eod_id = 0;
		st.port = port;
		st.is_master = 1;
		st.mirror_eventlib_context = ev;
		st.mirror_timer_context = timers;
		st.trace = daemon_trace_initialize("/var/log/mirror-test");
		ASSERT_EQ(mirror_setup(&st), 0);
		/* A class that only receives: what arrives is kept for the test. */
		session_class.mirror_data_lock_func = [](mirror_data_node *) {};
		session_class.mirror_data_unlock_func = [](mirror_data_node *) {};
		session_class.mirror_data_encode_func = [](mirror_data_node *, uint8_t *, uint32_t) {
			return -1;
		};
		session_class.mirror_data_decode_func = [](mirror_recvd_data *rd) {
			wire::record_def d;
			d.data_id = rd->data_id;
			d.op = rd->op;
			records.emplace_back(d, bytes(rd->data, rd->data + rd->got_len));
		};
		session_class.mirror_data_get_next_func = [](mirror_data_node *) {
			return static_cast<mirror_data_node *>(nullptr);
		};
		session_class.mirror_data_state_func = [](int state) { states.push_back(state); };
		session_class.mirror_receiver = MIRROR_RECEIVER_BOTH;
		session_class.mirror_data_id = 2;
		ASSERT_EQ(mirror_register_data(&session_class), 0);
		ASSERT_EQ(mirror_start(), 0);
	}

	void TearDown() override
	{
		mirror_terminate(nullptr);
		std::filesystem::remove_all(root);
	}
};

const auto *env = ::testing::AddGlobalTestEnvironment(new LinkEnv);

/* The other engine, played by hand over a plain socket. */
class raw_peer {
public:
	int fd = -1;
	bytes got;

	~raw_peer()
	{
		if (fd >= 0)
			close(fd);
	}

	/* Connect as soon as the master listens again. */
	bool connect_now()
	{
		return pump_until([this] {
			fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
			struct sockaddr_in sin = {};
			sin.sin_family = AF_INET;
			sin.sin_port = htons(port);
			sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
			int rc = connect(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin));
			if (rc == 0 || errno == EINPROGRESS) {
				/* Refused while the listener is down: try again. */
				pump_until([this] { return !drain() || wait_control(); }, 5);
				if (wait_control())
					return true;
			}
			close(fd);
			fd = -1;
			for (int i = 0; i < 5; i++)
				__evLoopOnce(ev, 10);
			return false;
		});
	}

	/* Connected once the listener is up, before the library accepted. */
	bool connect_early(uint32_t from = INADDR_LOOPBACK)
	{
		return pump_until([this, from] {
			fd = socket(AF_INET, SOCK_STREAM, 0);
			struct sockaddr_in src = {};
			src.sin_family = AF_INET;
			src.sin_addr.s_addr = htonl(from);
			struct sockaddr_in sin = {};
			sin.sin_family = AF_INET;
			sin.sin_port = htons(port);
			sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
			if (bind(fd, reinterpret_cast<struct sockaddr *>(&src), sizeof(src)) == 0 &&
			    connect(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)) == 0)
				return true;
			close(fd);
			fd = -1;
			__evLoopOnce(ev, 10);
			return false;
		});
	}

	/* Drain what the library sent; false once the library closed. */
	bool drain()
	{
		uint8_t buf[65536];
		for (;;) {
			ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
			if (n > 0) {
				got.insert(got.end(), buf, buf + n);
				continue;
			}
			return !(n == 0 || (n < 0 && errno != EAGAIN));
		}
	}

	/* The library's control messages have arrived. */
	bool wait_control()
	{
		drain();
		return got.size() >= 4 && got[1] == MAIN_TLV_CNTRL2;
	}

	void send_bytes(const bytes &b)
	{
		ASSERT_EQ(send(fd, b.data(), b.size(), MSG_NOSIGNAL), static_cast<ssize_t>(b.size()));
	}

	void send_control(uint32_t keepalive = 60, uint32_t buf_size = 0x20000)
	{
		uint8_t buf[1024];
		wire::cntrl_out c;
		c.dbs = db_table;
		c.keepalive = keepalive;
		c.buf_size = buf_size;
		size_t n = wire::put_cntrl2(buf, c);
		n += wire::put_cntrl(std::span(buf).subspan(n), 0);
		send_bytes(bytes(buf, buf + n));
	}

	bool wait_closed()
	{
		return pump_until([this] { return !drain(); });
	}

	/* A full connection: both control messages, link ready. */
	bool ready()
	{
		if (!connect_now())
			return false;
		send_control();
		return pump_until([] { return mirror_connected() != 0; });
	}
};

bytes
hex(const char *s)
{
	bytes out;
	unsigned v;
	int n;
	while (sscanf(s, " %2x%n", &v, &n) == 1) {
		out.push_back(static_cast<uint8_t>(v));
		s += n;
	}
	return out;
}

bytes
record_main(uint16_t id, const std::string &text)
{
	wire::record_def def;
	def.data_id = id;
	def.op = MIRROR_OP_ADD;
	std::vector<uint8_t> buf(text.size() + 64);
	size_t n = wire::put_record_main(buf, def,
	    std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
	buf.resize(n);
	return buf;
}

} // namespace

extern "C" void
mirror_report(int code, const char *text)
{
	reports.emplace_back(code, text);
}

TEST(MirrorLink, MasterWithoutStandbyReportsItMissing)
{
	EXPECT_FALSE(mirror_standby_missing());
	ASSERT_TRUE(pump_until([] { return !states.empty(); }));
	EXPECT_EQ(states.front(), MIRROR_STATE_NO_STANDBY);
	EXPECT_TRUE(mirror_standby_missing());
	EXPECT_FALSE(mirror_connected());
}

TEST(MirrorLink, ControlExchangeRecordsAndKeepalives)
{
	raw_peer peer;
	ASSERT_TRUE(peer.connect_now());
	/* What the master says first: its two control messages. */
	wire::frame f = wire::next_main(peer.got, 0x20000);
	ASSERT_EQ(f.type, static_cast<unsigned>(MAIN_TLV_CNTRL2));
	wire::cntrl2_in in;
	ASSERT_EQ(wire::parse_cntrl2(f.value, in), wire::error::none);
	EXPECT_EQ(in.keepalive, 60u);
	EXPECT_EQ(in.buf_size, 0x20000u);
	ASSERT_EQ(in.dbs.size(), 3u);
	ASSERT_TRUE(pump_until([&] { peer.drain(); return peer.got.size() >= f.whole + 12; }));
	EXPECT_EQ(bytes(peer.got.begin() + f.whole, peer.got.begin() + f.whole + 12),
	    hex("00 00 00 08 00 00 00 01 00 00 00 00"));

	states.clear();
	peer.send_control();
	ASSERT_TRUE(pump_until([] { return mirror_connected() != 0; }));
	EXPECT_EQ(states, std::vector<int>{MIRROR_STATE_UP});
	EXPECT_FALSE(mirror_standby_missing());
	EXPECT_EQ(mirror_peer_info()->mpi_cntrl_gen, 2);
	EXPECT_TRUE(mirror_peer_known(2));

	records.clear();
	peer.send_bytes(record_main(2, "session 42"));
	ASSERT_TRUE(pump_until([] { return !records.empty(); }));
	EXPECT_EQ(records[0].first.op, MIRROR_OP_ADD);
	EXPECT_EQ(std::string(records[0].second.begin(), records[0].second.end()), "session 42");

	/* Unknown TLVs are reported and skipped; the link stays. */
	reports.clear();
	peer.send_bytes(hex("00 09 00 04 01 02 03 04"));
	peer.send_bytes(hex("00 01 00 08  00 07 00 04 00 00 00 00"));
	peer.send_bytes(record_main(2, "after"));
	ASSERT_TRUE(pump_until([] { return records.size() == 2; }));
	EXPECT_TRUE(reported(MIRROR_REPORT_UNKNOWN_TLV, "Unknown Mirror TLV 0x0009"));
	EXPECT_TRUE(reported(MIRROR_REPORT_UNKNOWN_DATA_TLV, "Unknown Mirror Data TLV 0x0007"));
	EXPECT_TRUE(mirror_connected());

	/* An idle link carries keepalives (10 s, shortened by the timescale).
	 * The library's resync request went out at link-up: drain it first. */
	peer.drain();
	size_t before = peer.got.size();
	ASSERT_TRUE(pump_until([&] {
		peer.drain();
		return peer.got.size() >= before + 4;
	}));
	EXPECT_EQ(bytes(peer.got.end() - 4, peer.got.end()), hex("00 03 00 00"));

	/* The peer goes away: state 0 and a new listener. */
	states.clear();
	close(peer.fd);
	peer.fd = -1;
	ASSERT_TRUE(pump_until([] { return !states.empty(); }));
	EXPECT_EQ(states, std::vector<int>{MIRROR_STATE_DOWN});
	EXPECT_EQ(mirror_stats()->ms_closes, 1u);
}

TEST(MirrorLink, MalformedStreamsCloseTheLink)
{
	struct {
		const char *name;
		bytes stream;
	} cases[] = {
	    {"bad magic", hex("00 01 00 1C  00 00 00 0C 00 02 01 00 00 00 00 04 FE ED FA CF"
	                      "  00 01 00 04 61 62 63 64")},
	    {"short definition", hex("00 01 00 0C  00 00 00 08 00 02 01 00 00 00 00 04")},
	    {"main TLV larger than the ring", hex("F0 01 FF FF 00 00 00 00")},
	    {"data past its main TLV", hex("00 01 00 08  00 01 00 40 61 62 63 64")},
	    {"definition without data", hex("00 01 00 10  00 00 00 0C 00 02 01 00 00 00 00 04 FE ED FA CE")},
	    {"resync request of 8 bytes", hex("00 01 00 0C  00 02 00 08 00 05 00 00 00 00 00 00")},
	    {"bad operation", hex("00 01 00 14  00 00 00 0C 00 02 09 00 00 00 00 00 FE ED FA CE 00 01 00 00")},
	    {"second control message", hex("00 02 00 08  00 03 00 04 00 00 00 3C")},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.name);
		raw_peer peer;
		ASSERT_TRUE(peer.ready());
		uint32_t errors = mirror_stats()->ms_stream_errors;
		records.clear();
		/* Bytes behind the bad TLV are dropped with it. */
		bytes b = c.stream;
		bytes after = record_main(2, "never");
		b.insert(b.end(), after.begin(), after.end());
		peer.send_bytes(b);
		ASSERT_TRUE(peer.wait_closed());
		EXPECT_TRUE(records.empty());
		if (std::string(c.name) != "second control message") {
			EXPECT_EQ(mirror_stats()->ms_stream_errors, errors + 1);
		}
	}
	std::stringstream events;
	events << std::ifstream(tolvar::path("/var/log/events")).rdbuf();
	EXPECT_NE(events.str().find("MIRROR_STREAM_ERROR"), std::string::npos);
}

TEST(MirrorLink, DataOrEmptyControlBeforeTheExchangeCloses)
{
	for (const bytes &first : {record_main(2, "early"), hex("00 02 00 00")}) {
		raw_peer peer;
		ASSERT_TRUE(peer.connect_now());
		uint32_t errors = mirror_stats()->ms_stream_errors;
		peer.send_bytes(first);
		ASSERT_TRUE(peer.wait_closed());
		EXPECT_EQ(mirror_stats()->ms_stream_errors, errors + 1);
	}
}

TEST(MirrorLink, ManyTlvsInOneWriteAreAllRead)
{
	raw_peer peer;
	ASSERT_TRUE(peer.ready());
	records.clear();
	/* 250 keepalives: more than one walk of the ring takes. */
	bytes b;
	for (int i = 0; i < 250; i++) {
		bytes k = hex("00 03 00 00");
		b.insert(b.end(), k.begin(), k.end());
	}
	bytes r = record_main(2, "behind the keepalives");
	b.insert(b.end(), r.begin(), r.end());
	peer.send_bytes(b);
	ASSERT_TRUE(pump_until([] { return !records.empty(); }));
	EXPECT_TRUE(mirror_connected());
}

TEST(MirrorLink, FirstGenerationPeer)
{
	raw_peer peer;
	ASSERT_TRUE(peer.connect_now());
	/* A peer of the first generation skips the type 2 and reads type 0. */
	peer.send_bytes(hex("00 00 00 08  00 00 00 01 00 00 00 00"));
	ASSERT_TRUE(pump_until([] { return mirror_connected() != 0; }));
	EXPECT_EQ(mirror_peer_info()->mpi_cntrl_gen, 1);
	EXPECT_EQ(mirror_peer_info()->mpi_keepalive, 0u);
	EXPECT_TRUE(mirror_peer_known(0));
	EXPECT_TRUE(mirror_peer_known(2));
	/* It sends no keepalives: the kernel's probes watch it instead. */
	int on = 0;
	socklen_t len = sizeof(on);
	ASSERT_EQ(getsockopt(mirror_l.task->fd, SOL_SOCKET, SO_KEEPALIVE, &on, &len), 0);
	EXPECT_EQ(on, 1);
}

TEST(MirrorLink, OnlyThePeerEngineMayConnect)
{
	reports.clear();
	raw_peer stranger;
	ASSERT_TRUE(stranger.connect_early(INADDR_LOOPBACK + 1));
	stranger.send_control();
	ASSERT_TRUE(stranger.wait_closed());
	EXPECT_FALSE(mirror_connected());
	bool told = false;
	for (auto &r : reports)
		told |= r.first == MIRROR_REPORT_WARNING &&
		    r.second.starts_with("Mirror peer 127.0.0.2.") &&
		    r.second.ends_with(": connection refused: the peer is 127.0.0.1");
	EXPECT_TRUE(told);
	EXPECT_GE(mirror_stats()->ms_refused, 1u);
	/* The listener stayed for the real peer. */
	raw_peer peer;
	ASSERT_TRUE(peer.ready());
}

TEST(MirrorLink, VersionMismatchIsReported)
{
	struct {
		const char *control;
		int	code;
		const char *text;
	} cases[] = {
	    {"00 02 00 08  00 00 00 01 02 00 00 00", MIRROR_REPORT_ERROR,
	     "Mirror version on other Routing Engine is incompatible: invalid flags"},
	    /* From here on the slower retry applies: 60 s, 3 s here. */
	    {"00 00 00 08  00 00 00 02 00 00 00 00", MIRROR_REPORT_WARNING,
	     "Mirror versions on Routing Engines are incompatible: master (this system) "
	     "has version 1, standby has version 2"},
	    {"00 00 00 04  00 00 00 01", MIRROR_REPORT_ERROR,
	     "Mirror version on other Routing Engine is incompatible: invalid length"},
	    {"00 00 00 08  00 00 00 00 00 00 00 00", MIRROR_REPORT_ERROR,
	     "Mirror version on other Routing Engine is incompatible: invalid version 0"},
	};
	for (auto &c : cases) {
		raw_peer peer;
		ASSERT_TRUE(peer.connect_now());
		reports.clear();
		peer.send_bytes(hex(c.control));
		ASSERT_TRUE(peer.wait_closed());
		EXPECT_TRUE(reported(c.code, c.text)) << c.text;
	}
	EXPECT_EQ(mirror_l.retry_period, 60u);
	/*
	 * A good exchange brings the quick retry back, even when the peer's
	 * control message comes before ours has left: sent here before the
	 * library even accepted the connection.
	 */
	raw_peer peer;
	ASSERT_TRUE(peer.connect_early());
	peer.send_control();
	ASSERT_TRUE(pump_until([] { return mirror_connected() != 0; }));
	EXPECT_EQ(mirror_l.retry_period, 2u);
}

TEST(MirrorLink, PeerBufferSizeIsRoundedAndHeldToOneWrite)
{
	raw_peer peer;
	ASSERT_TRUE(peer.connect_now());
	peer.send_control(60, 0x18001);
	ASSERT_TRUE(pump_until([] { return mirror_connected() != 0; }));
	EXPECT_EQ(mirror_peer_info()->mpi_buf_size, 0x18004u);
}

TEST(MirrorLinkDeathTest, MisuseStopsTheProcess)
{
	mirror_reg_entry again = session_class;
	EXPECT_DEATH(mirror_register_data(&again), "mirror assertion failed");
	mirror_reg_entry beyond = session_class;
	beyond.mirror_data_id = 3;
	EXPECT_DEATH(mirror_register_data(&beyond), "data_id < MIRROR_DATA_LAST");
	mirror_reg_entry incomplete = session_class;
	incomplete.mirror_data_id = 0;
	incomplete.mirror_data_decode_func = nullptr;
	EXPECT_DEATH(mirror_register_data(&incomplete), "mirror assertion failed");
}

TEST(MirrorHost, MaxPacketIsHalvedOnASingleChassis)
{
	EXPECT_EQ(mirror_generic.get_maxpacket(0), 524288u);
	EXPECT_EQ(mirror_generic.get_maxpacket(1), 1048576u);
}

TEST(MirrorHost, UnknownOptionIsRejected)
{
	mirror_task *t = mirror_generic.task_alloc(mirror_state_get(), "opt", 60);
	t->fd = socket(AF_INET, SOCK_STREAM, 0);
	EXPECT_EQ(mirror_generic.set_option(t, 99, 1), EINVAL);
	EXPECT_EQ(mirror_generic.set_option(t, MIRROR_SOCKOPT_RTBL_INDEX, 1), 0);
	EXPECT_EQ(mirror_generic.set_option(t, MIRROR_SOCKOPT_REUSEADDR, 1), 0);
	mirror_generic.task_delete(t);
}

namespace {

int runs;
mirror_job *self_deleting;

void
run_twice_then_delete(mirror_job *job)
{
	if (++runs == 2)
		mirror_generic.job_delete(job);
}

} // namespace

TEST(MirrorHost, JobRunsOncePerTurnUntilItDeletesItself)
{
	mirror_task *t = mirror_generic.task_alloc(mirror_state_get(), "jobs", 60);
	/* The pipe was made by the first task; this one finds it. */
	mirror_pipe_counters before = mirror_generic_pipe_counters();
	ASSERT_GE(before.fd_read, 0);
	runs = 0;
	self_deleting = mirror_generic.job_create_background(t, 4, "j", run_twice_then_delete,
	    nullptr);
	ASSERT_TRUE(pump_until([] { return runs == 2; }));
	for (int i = 0; i < 20; i++)
		__evLoopOnce(ev, 5);
	EXPECT_EQ(runs, 2);
	mirror_pipe_counters after = mirror_generic_pipe_counters();
	EXPECT_EQ(after.fd_read, before.fd_read);
	/* Two runs, two wakeups: none after the delete. */
	EXPECT_EQ(after.writes - before.writes, 2u);
	EXPECT_EQ(after.reads - before.reads, 2u);
	mirror_generic.task_delete(t);
}
