/*
 * The keel handle and the registration with keel.
 *
 * Open order, the same in every process: sdb_open_internal, the connection
 * to keel (not in keel itself), sdb_db_init, sdb_db_secondary_init and, in
 * keel on the master, sdb_db_secondary_recover.  A failure anywhere closes
 * what was opened before it, so that a process never works on half an
 * environment.
 */
#include "keel_private.h"

#include <platform/chassis.h>
#include <platform/logging.h>
#include <platform/process.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

keel_handle *g_keel_ctx;
bool g_keel_init_handle_done;

namespace {

const char *const no_attrs[] = {nullptr};
constexpr int register_retry_budget = 20;

/* Codes after which a reregistration is worth trying again later. */
constexpr int retry_codes[] = {-4, -11, -12, -14, -19, -21, -26, -32, -34,
    -35, -38};

bool
is_retry_code(int code)
{
	for (int c : retry_codes)
		if (c == code)
			return true;
	return false;
}

bool
registered(const keel_handle *h)
{
	return h == nullptr || h->user_reg;
}

/* The setters' common refusal: no handle, registered, or no argument. */
int
refuse(const keel_handle *h, const void *arg)
{
	return (registered(h) || arg == nullptr) ? KEEL_ERR_FATAL : 0;
}

bool
process_is_keel(void)
{
	return strncmp(platform_progname(), "keel", 4) == 0;
}

void
db_error_event(const char *step, int line, int code)
{
	logging_event(3, "LIBSDB_DB_ERROR", no_attrs,
	    "LIBSDB_DB_ERROR: %s:%d %s failed err:%d for %s, pid:%d\n",
	    "keel_register", line, step, code, platform_progname(),
	    static_cast<int>(getpid()));
}

void
ready(keel_handle *h)
{
	if (h->db_ready_cb != nullptr)
		h->db_ready_cb(h->db_ready_ctx, keel_env()->env_value());
}

/* Step 5 of a registration: the application registers a second time. */
int
already_registered(keel_handle *h, bool *done)
{
	*done = false;
	if (h->fd >= 0) {
		logging_event(3, "LIBSDB_KEEL_REGISTERED", no_attrs,
		    "LIBSDB_KEEL_REGISTERED: %s: attempt to KEEL register when "
		    "already registered and connected.", platform_progname());
		keel_insist(h->fd < 0);
	}
	keel_info(h, "%s called KEEL register when already registered, but "
	    "disconnected.", platform_progname());
	if (h->is_keel) {
		logging_event(6, "LIBSDB_KEEL_REGISTERED", no_attrs,
		    "LIBSDB_KEEL_REGISTERED: Invalid %s() call, keel daemon "
		    "already registered.", "keel_register");
		*done = true;
		return 0;
	}
	int rc = keel_env()->close_internal(0);
	if (rc != 0)
		keel_info(h, "KEEL register failed calling sdb_close_internal(), "
		    "err: %d", rc);
	h->user_reg = 0;
	return 0;
}

/* Steps 9 and 10: the environment and the secondary tables. */
int
init_environment(keel_handle *h)
{
	int rc = keel_env()->db_init(h, h->is_keel);
	if (rc != 0) {
		db_error_event("sdb_db_init", __LINE__, rc);
		return rc;
	}
	rc = keel_env()->secondary_init(h->is_keel, 0);
	if (rc != 0)
		db_error_event("sdb_db_secondary_init", __LINE__, rc);
	return rc;
}

} // namespace

void
keel_log(const keel_handle *h, int priority, const char *fmt, ...)
{
	if (h == nullptr)
		return;
	va_list ap;
	va_start(ap, fmt);
	if (h->log_cb != nullptr)
		h->log_cb(h->log_ctx, priority, fmt, ap);
	else
		keel_env()->trace(const_cast<keel_handle *>(h), priority, fmt, ap);
	va_end(ap);
}

void
keel_insist_failed(const char *file, const char *func, int line,
    const char *expr)
{
	logging(0, "%s:%s:%d: insist '%s' failed", file, func, line, expr);
	fprintf(stderr, "%s:%s:%d: insist '%s' failed\n", file, func, line,
	    expr);
	abort();
}

extern "C" keel_handle *
keel_init_handle(void)
{
	keel_insist(!g_keel_init_handle_done);
	keel_handle *h = static_cast<keel_handle *>(calloc(1, sizeof(*h)));
	if (h == nullptr)
		return nullptr;
	h->fd = -1;
	h->timeout_ms = 1000;
	h->rereg_interval = {5, 0};
	g_keel_ctx = h;
	g_keel_init_handle_done = true;
	return h;
}

extern "C" int
keel_set_event_context(keel_handle *h, evContext *ctx)
{
	if (refuse(h, ctx) != 0)
		return KEEL_ERR_FATAL;
	h->event_context = *ctx;
	h->event_driven = 1;
	return 0;
}

extern "C" int
keel_set_poll_mode(keel_handle *h)
{
	if (registered(h))
		return KEEL_ERR_FATAL;
	h->poll_mode = 1;
	return 0;
}

extern "C" int
keel_set_recovery_pending(keel_handle *h)
{
	if (registered(h))
		return KEEL_ERR_FATAL;
	h->recovery_state = KEEL_RECOVERY_PENDING;
	return 0;
}

extern "C" int
keel_set_timeout(keel_handle *h, uint32_t ms)
{
	if (registered(h))
		return KEEL_ERR_FATAL;
	h->timeout_ms = ms;
	return 0;
}

extern "C" int
keel_set_conn_callbacks(keel_handle *h, void *ctx, keel_conn_cb up,
    keel_conn_cb down)
{
	if (registered(h) || up == nullptr || down == nullptr)
		return KEEL_ERR_FATAL;
	h->conn_ctx = ctx;
	h->conn_up_cb = up;
	h->conn_down_cb = down;
	h->has_conn_cb = 1;
	return 0;
}

extern "C" int
keel_set_issu_context(keel_handle *h, void *ctx)
{
	if (refuse(h, ctx) != 0)
		return KEEL_ERR_FATAL;
	h->issu_ctx = ctx;
	h->issu_capable = 1;
	return 0;
}

extern "C" int
keel_set_issu_idle_cb(keel_handle *h, keel_issu_cb cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->issu_idle_cb = cb;
	h->issu_capable = 1;
	return 0;
}

extern "C" int
keel_set_issu_prepare_cbs(keel_handle *h, keel_issu_prepare_cb prepare,
    keel_issu_cb prepare_done)
{
	if (refuse(h, reinterpret_cast<void *>(prepare)) != 0)
		return KEEL_ERR_FATAL;
	h->issu_prepare_cb = prepare;
	h->issu_prepare_done_cb = prepare_done;
	h->issu_capable = 1;
	return 0;
}

extern "C" int
keel_set_issu_switchover_cbs(keel_handle *h, keel_issu_switchover_cb prepare,
    keel_issu_cb done)
{
	if (refuse(h, reinterpret_cast<void *>(prepare)) != 0)
		return KEEL_ERR_FATAL;
	h->issu_switchover_cb = prepare;
	h->issu_switchover_done_cb = done;
	h->issu_capable = 1;
	return 0;
}

extern "C" int
keel_set_issu_abort_cb(keel_handle *h, keel_issu_abort_cb_t cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->issu_abort_cb = cb;
	h->issu_capable = 1;
	return 0;
}

extern "C" int
keel_set_log_cb(keel_handle *h, void *ctx, keel_log_cb cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->log_ctx = ctx;
	h->log_cb = cb;
	return 0;
}

extern "C" int
keel_set_db_ready_cb(keel_handle *h, void *ctx, keel_db_ready_cb cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->db_ready_ctx = ctx;
	h->db_ready_cb = cb;
	return 0;
}

extern "C" int
keel_set_mastership_cb(keel_handle *h, void *ctx, keel_mastership_cb cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->mastership_ctx = ctx;
	h->mastership_cb = cb;
	return 0;
}

extern "C" int
keel_set_env_restart_cb(keel_handle *h, keel_env_restart_cb cb)
{
	if (refuse(h, reinterpret_cast<void *>(cb)) != 0)
		return KEEL_ERR_FATAL;
	h->env_restart_cb = cb;
	return 0;
}

extern "C" int
keel_register(keel_handle *h)
{
	const keel_env_ops *env = keel_env();
	int budget = register_retry_budget;
	bool first = true;
	int rc;

	for (;;) {
		keel_insist(g_keel_init_handle_done);
		keel_insist(h != nullptr);
		if (h->issu_capable && h->issu_prepare_cb == nullptr)
			return KEEL_ERR_FATAL;
		if (!env->platform_supported()) {
			keel_info(h, "KEEL not supported on this platform");
			return KEEL_ERR_NOT_SUPPORTED;
		}
		h->is_keel = process_is_keel() ? 1 : 0;
		if (h->user_reg) {
			bool done;
			rc = already_registered(h, &done);
			if (done)
				return rc;
		}
		(void)keel_query_mastership(h);
		if (h->event_driven && first && keel_timer_create(h) != 0)
			return KEEL_ERR_FATAL;
		first = false;

		rc = env->open_internal(h->is_keel);
		if (rc != 0) {
			if (h->is_keel)
				return rc;
			(void)env->close_internal(0);
			return KEEL_ERR_NOT_STARTED;
		}
		if (!h->is_keel && (rc = keel_connect(h)) != 0) {
			keel_close_connection(h, 0, 0);
			(void)env->close_internal(0);
			return rc;
		}
		rc = init_environment(h);
		if (rc == 0)
			break;

		keel_error(h, "Failed to open SDB %s", sdb_strerror(rc));
		if (!h->is_keel && h->fd >= 0) {
			(void)keel_send_registration(h, 0,
			    static_cast<uint32_t>(rc));
			keel_close_connection(h, 0, 0);
		}
		(void)env->close_internal(h->is_keel);
		if (router_enhanced_bbe_support() != 1 || budget == 0)
			return rc;
		budget--;
		logging_event(6, "LIBSDB_KEEL_RETRY_STATUS", no_attrs,
		    "LIBSDB_KEEL_RETRY_STATUS: %s:%d retcode = %d retries "
		    "remaining = %d\n", __func__, __LINE__, rc, budget);
		set_rlimits_retry_i386();
	}

	if (h->is_keel) {
		keel_info(h, "Successfully opened SDB");
		if (env->is_master()) {
			rc = env->secondary_recover(0, 0);
			if (rc != 0) {
				keel_error(h, "Failed to recover SDB");
				(void)env->close_internal(1);
				return rc;
			}
			keel_info(h, "Successfully recovered secondary table");
		}
	} else
		keel_info(h, "Successfully registered with KEEL");
	ready(h);
	h->user_reg = 1;
	(void)env->register_setup();
	return 0;
}

extern "C" int
keel_reregister(keel_handle *h)
{
	const keel_env_ops *env = keel_env();
	int rc;

	if (h == nullptr || h->is_keel)
		return -1;
	if (!env->platform_supported()) {
		keel_info(h, "KEEL not supported on this platform");
		return KEEL_ERR_NOT_SUPPORTED;
	}
	if (h->event_driven && keel_timer_running(h))
		return KEEL_ERR_NOT_STARTED;

	if (h->user_reg && env->env_check() == 0 && h->reg_status == 0) {
		/* The socket went, the environment stayed: only reconnect. */
		(void)keel_query_mastership(h);
		if ((rc = keel_connect(h)) != 0) {
			keel_close_connection(h, 0, 1);
			return rc;
		}
		ready(h);
		(void)env->register_setup();
		keel_info(h, "Successfully reregistered with KEEL - Skiped DB "
		    "restart ...");
		return 0;
	}
	if (h->user_reg && (rc = env->close_internal(h->is_keel)) != 0)
		keel_info(h, "KEEL reregister failed calling "
		    "sdb_close_internal(), err: %d", rc);

	/*
	 * The mastership is asked again on this path too: the socket was
	 * lost, perhaps across a switchover, and the recovery check below
	 * and the registration's master bit must not act on the old one.
	 * Without it keel answers -31 and the database is opened twice.
	 */
	(void)keel_query_mastership(h);
	if ((rc = env->open_internal(h->is_keel)) != 0) {
		keel_info(h, "KEEL reregister failed calling "
		    "sdb_open_internal(), err: %d", rc);
		keel_close_connection(h, 0, 1);
		return KEEL_ERR_NOT_STARTED;
	}
	int check = env->env_check();
	uint32_t status = env->recovery_status();
	if (check == KEEL_ERR_NOT_STARTED && h->fd < 0) {
		keel_error(h, "Split Brain Recovery Status %d Mastership %d",
		    static_cast<int>(status), env->is_master());
	} else if (env->is_master() && status != 3) {
		keel_info(h, "KEEL reregister failed calling "
		    "sdb_open_internal(), err: %d", check);
		keel_close_connection(h, 0, 1);
		(void)env->close_internal(h->is_keel);
		return KEEL_ERR_NOT_STARTED;
	}
	if ((rc = keel_connect(h)) != 0) {
		keel_close_connection(h, 0, 1);
		(void)env->close_internal(h->is_keel);
		return rc;
	}
	rc = init_environment(h);
	if (rc == 0) {
		keel_info(h, "%s:%d Successfully registered with KEEL",
		    __func__, __LINE__);
		ready(h);
		keel_info(h, "Successfully reregistered with KEEL");
		(void)env->register_setup();
		return 0;
	}
	keel_error(h, "Failed to init session db %s\n", sdb_strerror(rc));
	keel_close_connection(h, 1, 1);
	return is_retry_code(rc) ? KEEL_ERR_NOT_STARTED : KEEL_ERR_FATAL;
}

extern "C" int
keel_unregister(keel_handle **hp)
{
	keel_insist(g_keel_init_handle_done);
	keel_handle *ctx = hp != nullptr ? *hp : nullptr;
	keel_insist(ctx == g_keel_ctx);
	keel_insist(ctx != nullptr);
	keel_handle *h = ctx;
	int rc = 0;

	if (h->user_reg) {
		rc = keel_env()->close_internal(h->is_keel);
		if (h->fd >= 0) {
			(void)keel_send_registration(h, 0,
			    static_cast<uint32_t>(rc));
			/* Let keel read the goodbye before the socket closes. */
			usleep(5000);
			keel_close_connection(h, 0, 0);
		}
		h->user_reg = 0;
	}
	/* Whatever is left open goes too, with no one left to tell. */
	keel_close_connection(h, 0, 0);
	if (h->event_driven)
		keel_timer_delete(h);
	keel_info(h, h->is_keel ? "Closed SDB" : "Unregistered with KEEL");
	free(h);
	g_keel_ctx = nullptr;
	g_keel_init_handle_done = false;
	*hp = nullptr;
	return rc;
}

extern "C" int
keel_is_registered(void)
{
	return g_keel_ctx != nullptr ? g_keel_ctx->user_reg : 0;
}

extern "C" void
keel_reset(void)
{
	keel_handle *h = g_keel_ctx;

	if (h != nullptr) {
		keel_timer_delete(h);
		if (h->event_driven && h->selected) {
			(void)__evDeselectFD(h->event_context, h->event_id);
			h->selected = 0;
		}
		if (h->conn_cb_done) {
			h->conn_cb_done = 0;
			h->conn_down_cb(h->conn_ctx, h->fd);
		}
		if (h->fd >= 0)
			close(h->fd);
		h->fd = -1;
		h->user_reg = 0;
		h->connected = 0;
	}
	g_keel_ctx = nullptr;
	g_keel_init_handle_done = false;
}
