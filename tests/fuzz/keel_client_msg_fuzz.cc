/*
 * Bytes from keel, as the client reads them: any stream must end in a
 * closed connection or a state the client can go on from, never a crash
 * or a wait.  The database environment is a no-op here.
 */
#include "keel_private.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int ok1(int) { return 0; }
int ok2(int, int) { return 0; }
int db_init(keel_handle *, int) { return 0; }
int check(void) { return 0; }
char token;
void *env_value(void) { return &token; }
int supported(void) { return 1; }
int master;
int is_master(void) { return master; }
void set_mastership(int m) { master = m; }
void nothing(void) {}
uint32_t recovery_status(void) { return 3; }
int setup(void) { return 0; }
void trace(keel_handle *, int, const char *, va_list) {}

const keel_env_ops quiet = {
	ok1, ok1, db_init, ok2, ok2, check, env_value, supported, is_master,
	set_mastership, nothing, recovery_status, setup, trace,
};

void prepare(void *, int *abort, int *ready, keel_issu_info *info)
{
	*abort = 0;
	*ready = 0;
	info->wait = 5;
	memset(info->text, 'x', sizeof(info->text));	/* unterminated */
}
void switchover(void *, int *ready, keel_issu_info *) { *ready = 0; }
void abort_cb(void *, keel_issu_info *) {}
void idle(void *) {}

keel_handle *
handle(void)
{
	static keel_handle *h = [] {
		keel_env_set(&quiet);
		keel_handle *n = keel_init_handle();
		static int ctx;
		keel_set_issu_context(n, &ctx);
		keel_set_issu_prepare_cbs(n, prepare, idle);
		keel_set_issu_switchover_cbs(n, switchover, idle);
		keel_set_issu_abort_cb(n, abort_cb);
		keel_set_issu_idle_cb(n, idle);
		keel_set_timeout(n, 10);
		return n;
	}();
	return h;
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	keel_handle *h = handle();
	int sv[2];
	if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
		return 0;
	h->fd = sv[0];
	h->user_reg = 1;
	h->connected = 1;
	if (size > 0 && write(sv[1], data, size) != static_cast<ssize_t>(size)) {
		close(sv[1]);
		keel_close_connection(h, 0, 0);
		return 0;
	}
	shutdown(sv[1], SHUT_WR);
	/* Every message is at least 4 bytes: this many reads must end it. */
	for (size_t i = 0; i <= size / 4 + 1 && h->fd >= 0; i++)
		keel_process(h);
	if (h->fd >= 0)
		__builtin_trap();	/* a closed stream left the socket open */
	close(sv[1]);
	h->user_reg = 0;
	return 0;
}
