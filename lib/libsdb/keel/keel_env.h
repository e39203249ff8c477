/*
 * What the keel client needs of the database environment, gathered in one
 * table so that the client's own tests can watch the open and close order
 * without a keel and its stores.  The library's table binds each entry to
 * the environment's function of the same purpose (keel_env_sdb.cc).
 */
#ifndef KEEL_ENV_H
#define KEEL_ENV_H

#include <stdarg.h>
#include <stdint.h>

struct keel_handle;

struct keel_env_ops {
	int	(*open_internal)(int is_keel);
	int	(*close_internal)(int is_keel);
	int	(*db_init)(struct keel_handle *h, int is_keel);
	int	(*secondary_init)(int is_keel, int is_locked);
	int	(*secondary_recover)(int force, int is_locked);
	/* The state check without side effects: 0 when the environment is up. */
	int	(*env_check)(void);
	/* The environment handed to the ready callback, NULL when down. */
	void	*(*env_value)(void);
	int	(*platform_supported)(void);
	int	(*is_master)(void);
	void	(*set_mastership)(int master);
	/* The answer said -11: a later close reports the loss. */
	void	(*set_recovering)(void);
	/* recovery_status of the main segment, 0 when not attached. */
	uint32_t (*recovery_status)(void);
	/* Registration area setup, with a null callback. */
	int	(*register_setup)(void);
	/* The library's trace, for a process that gave no log callback. */
	void	(*trace)(struct keel_handle *h, int level, const char *fmt,
		    va_list ap);
};

/* The table in use; tests may swap it (and restore it with NULL). */
const struct keel_env_ops *keel_env(void);
void keel_env_set(const struct keel_env_ops *ops);

/* The library's own binding. */
extern const struct keel_env_ops keel_env_default;

#endif
