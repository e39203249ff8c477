/*
 * Every absolute path of the system is resolved below one root directory,
 * TOLVAR_ROOT (default "/"), so that several engines and tests can share a
 * machine.  Nothing else in the tree may open an absolute path directly.
 */
#ifndef PLATFORM_PATHS_H
#define PLATFORM_PATHS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Root directory in effect, without a trailing slash ("" for "/"). */
const char *tolvar_root(void);

/*
 * Write TOLVAR_ROOT + abs into buf.  Returns buf, or NULL when abs is not
 * absolute or the result does not fit.
 */
char *tolvar_path(const char *abs, char *buf, size_t size);

/* Create every missing directory of an already resolved path (mkdir -p). */
int tolvar_mkdirs(const char *resolved, unsigned mode);

#ifdef __cplusplus
}

#include <string>
#include <string_view>

namespace tolvar {
/* C++ form of tolvar_path(); never fails. */
std::string path(std::string_view abs);
}
#endif

#endif
