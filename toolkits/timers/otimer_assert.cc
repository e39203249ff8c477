#include "otimer_assert.h"

#include <cstdio>
#include <cstring>

namespace {

/* Single-threaded toolkit: a plain global, like the handler it holds. */
otimer_fatal_fn fatal_handler;

} // namespace

extern "C" {

void
otimer_assert(const char *file, int line, const char *expression)
{
	char text[120];

	/* The build's absolute source paths would crowd the expression out of
	 * the 120 bytes: keep the file's own name. */
	const char *slash = std::strrchr(file, '/');
	if (slash != nullptr)
		file = slash + 1;
	std::snprintf(text, sizeof(text), "%s:%d: assert '%s' failed", file, line,
	              expression);
	if (fatal_handler != nullptr)
		fatal_handler(text);
}

void
otimer_set_fatal_handler(otimer_fatal_fn handler)
{
	if (handler != nullptr)
		fatal_handler = handler;
}

otimer_fatal_fn
otimer_get_fatal_handler(void)
{
	return fatal_handler;
}

} // extern "C"
