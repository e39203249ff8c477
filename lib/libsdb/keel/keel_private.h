/*
 * Inside the keel client.  One handle per process, reached through
 * g_keel_ctx; every function runs in the application's single thread.
 */
#ifndef KEEL_PRIVATE_H
#define KEEL_PRIVATE_H

#include <sdb/keel.h>

#include "keel_env.h"

extern "C" const char *sdb_strerror(int code);

extern keel_handle *g_keel_ctx;
extern bool g_keel_init_handle_done;

/* Text of this client: through the application's log callback, if any. */
void keel_log(const keel_handle *h, int priority, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
#define keel_info(h, ...)	keel_log((h), KEEL_LOG_INFO, __VA_ARGS__)
#define keel_error(h, ...)	keel_log((h), KEEL_LOG_ERR, __VA_ARGS__)

/*
 * A programming error of the caller: logged at priority 0 with file,
 * function, line and expression, then the process stops, since going on
 * with a broken handle could corrupt the database of every process.
 */
[[noreturn]] void keel_insist_failed(const char *file, const char *func,
    int line, const char *expr);
#define keel_insist(e)	((e) ? (void)0 : \
	keel_insist_failed(__FILE__, __func__, __LINE__, #e))

/* Transport (keel_io.cc). */
int	keel_connect(keel_handle *h);
int	keel_send(keel_handle *h, const void *msg, size_t len);
int	keel_send_registration(keel_handle *h, int reg, uint32_t error);
int	keel_read_message(keel_handle *h);
int	keel_path(char *buf, size_t size);

/* Message steps (keel_io.cc, keel_issu.cc). */
void	keel_mastership_step(keel_handle *h, uint8_t master);
void	keel_issu_received(keel_handle *h, uint32_t msg);
void	keel_issu_after_connect(keel_handle *h);

/* Mastership as the library sees it, refreshed from the chassis. */
int	keel_query_mastership(keel_handle *h);

/* Re-registration timer (keel_timer.cc). */
int	keel_timer_create(keel_handle *h);
void	keel_timer_arm(keel_handle *h);
bool	keel_timer_running(const keel_handle *h);
void	keel_timer_delete(keel_handle *h);

/* Data limit back-off between open retries (keel_rlimit.cc). */
void	set_rlimits_retry_i386(void);

#endif
