/*
 * Stand-in for the keel client until it joins the session database
 * library and tolvard links that: registration always succeeds and hands
 * over a placeholder environment, so that the daemon's open, retry and
 * close paths run as they will.  The placeholder is never dereferenced:
 * nothing in the daemon reads through db_env yet.  This file goes when
 * the daemon links the library.
 */
#include "keel_client.h"

#include <array>
#include <cstdarg>
#include <new>

namespace {

char placeholder_env;

void client_log(keel_handle *h, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

void client_log(keel_handle *h, const char *fmt, ...)
{
	if (h->log_cb == nullptr)
		return;
	va_list ap;
	va_start(ap, fmt);
	h->log_cb(h->log_ctx, KEEL_LOG_INFO, fmt, ap);
	va_end(ap);
}

constexpr int KEEL_ERR_REGISTERED = KEEL_ERR_FATAL;

} // namespace

extern "C" keel_handle *keel_init_handle(void)
{
	keel_handle *h = new (std::nothrow) keel_handle{};

	if (h != nullptr)
		h->fd = -1;
	return h;
}

extern "C" int keel_set_event_context(keel_handle *h, evContext *ctx)
{
	if (h == nullptr || h->user_reg || ctx == nullptr)
		return KEEL_ERR_REGISTERED;
	h->event_context = *ctx;
	h->event_driven = 1;
	return 0;
}

extern "C" int keel_set_recovery_pending(keel_handle *h)
{
	if (h == nullptr || h->user_reg)
		return KEEL_ERR_REGISTERED;
	h->recovery_state = KEEL_RECOVERY_PENDING;
	return 0;
}

extern "C" int keel_set_issu_context(keel_handle *h, void *ctx)
{
	if (h == nullptr || h->user_reg || ctx == nullptr)
		return KEEL_ERR_REGISTERED;
	h->issu_ctx = ctx;
	h->issu_capable = 1;
	return 0;
}

extern "C" int keel_set_issu_prepare_cbs(keel_handle *h, keel_issu_prepare_cb prepare,
                                         keel_issu_cb prepare_done)
{
	if (h == nullptr || h->user_reg || prepare == nullptr)
		return KEEL_ERR_REGISTERED;
	h->issu_prepare_cb = prepare;
	h->issu_prepare_done_cb = prepare_done;
	h->issu_capable = 1;
	return 0;
}

extern "C" int keel_set_issu_switchover_cbs(keel_handle *h,
                                            keel_issu_switchover_cb switchover,
                                            keel_issu_cb switchover_done)
{
	if (h == nullptr || h->user_reg || switchover == nullptr)
		return KEEL_ERR_REGISTERED;
	h->issu_switchover_cb = switchover;
	h->issu_switchover_done_cb = switchover_done;
	h->issu_capable = 1;
	return 0;
}

extern "C" int keel_set_log_cb(keel_handle *h, void *ctx, keel_log_cb cb)
{
	if (h == nullptr || h->user_reg || cb == nullptr)
		return KEEL_ERR_REGISTERED;
	h->log_ctx = ctx;
	h->log_cb = cb;
	return 0;
}

extern "C" int keel_set_db_ready_cb(keel_handle *h, void *ctx, keel_db_ready_cb cb)
{
	if (h == nullptr || h->user_reg || cb == nullptr)
		return KEEL_ERR_REGISTERED;
	h->db_ready_ctx = ctx;
	h->db_ready_cb = cb;
	return 0;
}

extern "C" int keel_register(keel_handle *h)
{
	if (h == nullptr)
		return KEEL_ERR_REGISTERED;
	client_log(h, "keel_register: keel client not built yet");
	h->user_reg = 1;
	h->connected = 1;
	if (h->db_ready_cb != nullptr)
		h->db_ready_cb(h->db_ready_ctx, &placeholder_env);
	return 0;
}

extern "C" int keel_unregister(keel_handle **hp)
{
	if (hp == nullptr || *hp == nullptr)
		return KEEL_ERR_REGISTERED;
	client_log(*hp, "keel_unregister: keel client not built yet");
	delete *hp;
	*hp = nullptr;
	return 0;
}

extern "C" const char *sdb_strerror(int code)
{
	static constexpr std::array<const char *, 40> text = {
		"success",
		"SDB unexpected fatal error",
		"SDB out of memory",
		"SDB contains invalid data",
		"SDB deadlock",
		"SDB data corrupted",
		"SDB invalid parameter",
		"SDB data not found",
		"SDB attr already exists",
		"SDB attr does not exist",
		"unit number pool run out of unit numbers",
		"SDB is recovering",
		"SDB is unavailable",
		"SDB is read only",
		"SDB internal state is recovering",
		"SDB replication is not supported in current platform",
		"SDB cannot find array",
		"SDB is not supported in current platform",
		"sdb error code exceeds table size",	/* -18 is not given out */
		"session database has not started yet",
		"snapshot handle only; filtered by config bits",
		"session database needs secondary recovery",
		"session database summary counter error",
		"SDB shared mem block already in use",
		"SDB shared mem block too small for data",
		"keel unexpected fatal error",
		"Failed to connect to KEEL",
		"ISSU in progress",
		"SHM db doesn't need to be written out",
		"KEEL throttling session create because of RSMON",
		"SDB no session match",
		"KEEL mastership mismatch",
		"SDB update conflict",
		"subscriber-management recovery in progress",
		"SDB update blocked",
		"Failure sending to the keel daemon",
		"KEEL is purging the SDB",
		"Buffer too small",
		"Too many SDB database clients, try later",
		"Lock type requested/held is invalid",
	};
	if (code > 0 || code < -39)
		return "sdb error code exceeds table size";
	return text[-code];
}
