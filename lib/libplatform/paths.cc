#include "platform/paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

/* Read once: the root may not change under a running process. */
const std::string &root_prefix()
{
	static const std::string prefix = [] {
		const char *env = std::getenv("TOLVAR_ROOT");
		std::string r = (env != nullptr) ? env : "";
		while (!r.empty() && r.back() == '/')
			r.pop_back();
		return r;
	}();
	return prefix;
}

} // namespace

extern "C" const char *tolvar_root(void)
{
	return root_prefix().c_str();
}

extern "C" char *tolvar_path(const char *abs, char *buf, size_t size)
{
	if (abs == nullptr || abs[0] != '/' || buf == nullptr)
		return nullptr;
	const std::string &root = root_prefix();
	size_t need = root.size() + std::strlen(abs) + 1;
	if (need > size)
		return nullptr;
	std::memcpy(buf, root.data(), root.size());
	std::memcpy(buf + root.size(), abs, need - root.size());
	return buf;
}

extern "C" int tolvar_mkdirs(const char *resolved, unsigned mode)
{
	std::string p(resolved);
	for (size_t i = 1; i <= p.size(); i++) {
		if (i != p.size() && p[i] != '/')
			continue;
		std::string part = p.substr(0, i);
		if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
			return -1;
	}
	return 0;
}

namespace tolvar {

std::string path(std::string_view abs)
{
	return root_prefix() + std::string(abs);
}

} // namespace tolvar
