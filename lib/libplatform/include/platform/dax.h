/*
 * Configuration database.  The configuration is a text file of set-lines,
 * "<root>/etc/tolvar/config", one statement per line:
 *
 *   set chassis redundancy graceful-switchover
 *
 * Blank lines and lines starting with '#' are ignored.  An object exists
 * when some set-line has its path as a prefix.
 */
#ifndef PLATFORM_DAX_H
#define PLATFORM_DAX_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DAX_CONFIG_PATH "/etc/tolvar/config"

typedef struct ddl_handle ddl_handle_t;

/* Returns 0, or an errno value when the file cannot be read. */
int dax_open_db(void *unused, const char *program, const char *schema,
                unsigned schema_number, int check);
/* Returns 0, or EBADF when no database is open. */
int dax_close_db(void);

/*
 * Look up the object at path (a NULL-terminated list of names) below
 * parent (NULL for the top).  True with *out set when it exists.  False
 * when it does not; errmsg then holds a text when the configuration could
 * not be read (a line that does not parse, no open database) and stays
 * empty when the object is simply not configured.
 */
int ddl_access_object_find_by_name(ddl_handle_t *parent, const char *const *path,
                                   ddl_handle_t **out, char *errmsg,
                                   size_t errlen);
void ddl_access_release(ddl_handle_t *obj);
/*
 * The value of a statement "set <path...> <value>": the one word after
 * path, last statement winning.  1 when found, 0 when not, -1 with errmsg
 * when the database is not open or did not parse.
 */
int ddl_access_value(const char *const *path, char *buf, size_t size,
                     char *errmsg, size_t errlen);

/*
 * The word that follows path (a NULL-terminated list of names) in the
 * first set-line that has it, read from the file now; the open database,
 * if any, is left alone.  True with value filled, false when the file or
 * the statement is missing or has no value.
 */
int dax_config_value(const char *const *path, char *value, size_t len);

#ifdef __cplusplus
}
#endif

#endif
