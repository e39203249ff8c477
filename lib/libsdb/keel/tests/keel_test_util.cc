#include "keel_test_util.h"

#include <cstdlib>
#include <fcntl.h>

namespace keeltest {

namespace {

/* Each test binary gets a root of its own, before anything reads it. */
const std::string test_root = [] {
	char tmpl[] = "/tmp/keelcli-test-XXXXXX";
	const char *dir = mkdtemp(tmpl);
	std::string root = dir != nullptr ? dir : "/tmp";
	setenv("TOLVAR_ROOT", root.c_str(), 1);
	std::string run = root + "/var/run";
	tolvar_mkdirs(run.c_str(), 0755);
	return root;
}();

env_record record;

void note(const char *call) { record.calls.emplace_back(call); }

int open_internal(int is_keel)
{
	note(is_keel ? "open_internal(keel)" : "open_internal");
	return record.open_rc;
}
int close_internal(int) { note("close_internal"); return 0; }
int db_init(keel_handle *, int) { note("db_init"); return record.db_init_rc; }
int secondary_init(int, int)
{
	note("secondary_init");
	return record.secondary_rc;
}
int secondary_recover(int, int) { note("secondary_recover"); return 0; }
int env_check(void) { return record.check_rc; }
char token;
void *env_value(void) { return &token; }
int platform_supported(void) { return record.supported; }
int is_master(void) { return record.master; }
void set_mastership(int m) { record.master = m; }
void set_recovering(void) { record.recovering = true; }
uint32_t recovery_status(void) { return record.recovery_status; }
int register_setup(void) { note("register_setup"); return 0; }
void trace(keel_handle *, int, const char *, va_list) {}

const keel_env_ops ops = {
	open_internal, close_internal, db_init, secondary_init,
	secondary_recover, env_check, env_value, platform_supported,
	is_master, set_mastership, set_recovering, recovery_status,
	register_setup, trace,
};

} // namespace

env_record &env() { return record; }
const keel_env_ops *recording_env() { return &ops; }

void
write_platform(const std::string &text)
{
	std::string dir = test_root + "/etc/tolvar";
	tolvar_mkdirs(dir.c_str(), 0755);
	std::string path = dir + "/platform";
	if (text.empty()) {
		unlink(path.c_str());
		return;
	}
	FILE *f = fopen(path.c_str(), "w");
	ASSERT_NE(f, nullptr);
	fputs(text.c_str(), f);
	fclose(f);
}

int
count_events(const std::string &tag, const std::string &text)
{
	FILE *f = fopen((test_root + "/var/log/events").c_str(), "r");
	if (f == nullptr)
		return 0;
	char line[4096];
	int n = 0;
	while (fgets(line, sizeof(line), f) != nullptr)
		n += strstr(line, ("\t" + tag + "\t").c_str()) != nullptr &&
		    strstr(line, text.c_str()) != nullptr;
	fclose(f);
	return n;
}

bool
read_msg(int fd, void *buf, size_t len)
{
	size_t got = 0;
	struct pollfd p = {fd, POLLIN, 0};
	while (got < len) {
		if (poll(&p, 1, 2000) <= 0)
			return false;
		ssize_t n = read(fd, static_cast<char *>(buf) + got, len - got);
		if (n <= 0)
			return false;
		got += static_cast<size_t>(n);
	}
	return true;
}

int
listen_on_keel_path(int backlog)
{
	struct sockaddr_un sun = {};
	sun.sun_family = AF_UNIX;
	keel_path(sun.sun_path, sizeof(sun.sun_path));
	unlink(sun.sun_path);
	int fd = socket(AF_UNIX, SOCK_STREAM, 0);
	if (bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) != 0 ||
	    listen(fd, backlog) != 0)
		ADD_FAILURE() << "cannot listen on " << sun.sun_path;
	return fd;
}

fake_keel::fake_keel()
{
	listen_fd_ = listen_on_keel_path(8);
	answer_.type = KEEL_MSG_REG_ANSWER;
	answer_.flags = KEEL_ANSWER_SUCCESS;
	thread_ = std::thread([this] { run(); });
}

fake_keel::~fake_keel()
{
	stop_ = true;
	thread_.join();
	close(listen_fd_);
	std::lock_guard<std::mutex> g(mu_);
	if (client_fd_ >= 0)
		close(client_fd_);
}

void
fake_keel::run()
{
	while (!stop_) {
		struct pollfd p[2] = {{listen_fd_, POLLIN, 0}, {-1, POLLIN, 0}};
		{
			std::lock_guard<std::mutex> g(mu_);
			p[1].fd = client_fd_;
		}
		if (poll(p, 2, 20) <= 0)
			continue;
		if (p[0].revents & POLLIN) {
			int fd = accept(listen_fd_, nullptr, nullptr);
			std::lock_guard<std::mutex> g(mu_);
			if (client_fd_ >= 0)
				close(client_fd_);
			client_fd_ = fd;
			continue;
		}
		if (p[1].revents == 0)
			continue;
		std::lock_guard<std::mutex> g(mu_);
		uint32_t type;
		if (!read_msg(client_fd_, &type, sizeof(type))) {
			close(client_fd_);
			client_fd_ = -1;
			continue;
		}
		if (type != KEEL_MSG_REGISTER) {
			/* Read past it to keep the stream in step. */
			size_t rest = keel_msg_to_keel_size(type);
			std::vector<uint8_t> body(rest > 4 ? rest - 4 : 0);
			if (!body.empty())
				read_msg(client_fd_, body.data(), body.size());
			continue;
		}
		keel_msg_register m;
		m.type = type;
		if (!read_msg(client_fd_, reinterpret_cast<char *>(&m) + 4,
		    sizeof(m) - 4))
			continue;
		regs_.push_back(m);
		if (mode_ == ANSWER && (m.flags & KEEL_REG_REGISTER)) {
			ssize_t w = write(client_fd_, &answer_, sizeof(answer_));
			(void)w;
		}
	}
}

void
fake_keel::answer(uint32_t flags, int32_t status, uint32_t daemon_issu,
    uint32_t chassis_issu)
{
	std::lock_guard<std::mutex> g(mu_);
	mode_ = ANSWER;
	answer_.flags = flags;
	answer_.status = static_cast<uint32_t>(status);
	answer_.daemon_issu = daemon_issu;
	answer_.chassis_issu = chassis_issu;
}

void
fake_keel::silent()
{
	std::lock_guard<std::mutex> g(mu_);
	mode_ = SILENT;
}

std::vector<keel_msg_register>
fake_keel::registrations(size_t n)
{
	for (int i = 0; i < 100; i++) {
		{
			std::lock_guard<std::mutex> g(mu_);
			if (regs_.size() >= n)
				return regs_;
		}
		usleep(20000);
	}
	std::lock_guard<std::mutex> g(mu_);
	return regs_;
}

void
KeelTest::SetUp()
{
	record = env_record{};
	write_platform("");
	keel_env_set(recording_env());
	h = keel_init_handle();
	ASSERT_NE(h, nullptr);
	keel_set_log_cb(h, this, [](void *ctx, int, const char *fmt, va_list ap) {
		char buf[512];
		vsnprintf(buf, sizeof(buf), fmt, ap);
		static_cast<KeelTest *>(ctx)->log.emplace_back(buf);
	});
	keel_set_db_ready_cb(h, this, [](void *ctx, void *e) {
		static_cast<KeelTest *>(ctx)->ready.push_back(e);
	});
}

void
KeelTest::TearDown()
{
	if (g_keel_ctx != nullptr)
		keel_unregister(&g_keel_ctx);
	if (peer >= 0)
		close(peer);
	keel_env_set(nullptr);
	write_platform("");
}

bool
KeelTest::logged(const std::string &line) const
{
	return count_logged(line) > 0;
}

int
KeelTest::count_logged(const std::string &line) const
{
	int n = 0;
	for (const auto &l : log)
		n += l == line ? 1 : 0;
	return n;
}

int
KeelTest::attach_peer()
{
	int sv[2];
	if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
		return -1;
	h->fd = sv[0];
	h->connected = 1;
	h->user_reg = 1;
	peer = sv[1];
	return peer;
}

} // namespace keeltest
