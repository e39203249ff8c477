/*
 * The environment table in use by the client.
 */
#include "keel_env.h"

namespace {

const keel_env_ops *current = &keel_env_default;

} // namespace

const keel_env_ops *
keel_env(void)
{
	return current;
}

void
keel_env_set(const keel_env_ops *ops)
{
	current = ops != nullptr ? ops : &keel_env_default;
}
