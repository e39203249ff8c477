#include "platform/chassis.h"
#include "platform/paths.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <netdb.h>
#include <netinet/in.h>
#include <string>

namespace {

std::string trim(const std::string &s)
{
	size_t b = s.find_first_not_of(" \t\r");
	if (b == std::string::npos)
		return "";
	size_t e = s.find_last_not_of(" \t\r");
	return s.substr(b, e - b + 1);
}

/* Read afresh each time: the lab and tests rewrite the file under us. */
bool lookup(const char *key, std::string *value)
{
	std::ifstream in(tolvar::path(PLATFORM_FILE_PATH));
	std::string line;
	bool found = false;
	while (std::getline(in, line)) {
		size_t hash = line.find('#');
		if (hash != std::string::npos)
			line.resize(hash);
		size_t eq = line.find('=');
		if (eq == std::string::npos)
			continue;
		if (trim(line.substr(0, eq)) != key)
			continue;
		*value = trim(line.substr(eq + 1));
		found = true;	/* the last assignment wins */
	}
	return found;
}

bool flag(const char *key)
{
	return platform_get_long(key, 0) != 0;
}

} // namespace

extern "C" int platform_get(const char *key, char *buf, size_t size)
{
	std::string v;
	if (!lookup(key, &v))
		return -1;
	snprintf(buf, size, "%s", v.c_str());
	return 0;
}

extern "C" long platform_get_long(const char *key, long dflt)
{
	std::string v;
	if (!lookup(key, &v) || v.empty())
		return dflt;
	char *end = nullptr;
	long n = strtol(v.c_str(), &end, 0);
	return (*end == '\0') ? n : dflt;
}

extern "C" void nmchassis_setup_capabilities(void)
{
}

extern "C" int nmchassis_cluster_is_enabled(void)
{
	return flag("cluster");
}

extern "C" int nmchassis_is_virtual_chassis(void)
{
	return flag("virtual_chassis");
}

extern "C" int nmchassis_is_generic_protocol_master(void)
{
	std::string v;
	return lookup("role", &v) && v == "master";
}

extern "C" int mcontrol_re_is_master_reboot_pending(void)
{
	std::string v;
	if (flag("master_reboot_pending"))
		return 1;
	/* A role of "none" is how the lab says the engine awaits a reboot. */
	return !lookup("role", &v) || v == "none";
}

extern "C" int mchassis_L3_ha_is_enabled(void)
{
	return flag("l3_ha");
}

extern "C" int platform_redundancy_state(uint32_t *state)
{
	long v = platform_get_long("redundancy_state", -1);
	if (state == nullptr || v < 0 || v > static_cast<long>(UINT32_MAX))
		return -1;
	*state = static_cast<uint32_t>(v);
	return 0;
}

extern "C" int router_enhanced_bbe_support(void)
{
	return flag("enhanced_bbe");
}

extern "C" int platform_sysctlbyname(const char *name, void *oldp, size_t *oldlenp)
{
	long value;
	if (strcmp(name, "net.enhanced_bbe_mode") == 0)
		value = platform_get_long("enhanced_bbe", 0);
	else if (strcmp(name, "kern.ipc.maxsockbuf") == 0)
		value = platform_get_long("maxsockbuf", 2097152);
	else if (strcmp(name, "hw.512binstalledmem") == 0)
		value = platform_get_long("installed_mem_512b", 0);
	else {
		errno = ENOENT;
		return -1;
	}
	if (oldlenp == nullptr || oldp == nullptr) {
		errno = EINVAL;
		return -1;
	}
	if (*oldlenp >= sizeof(long)) {
		std::memcpy(oldp, &value, sizeof(long));
		*oldlenp = sizeof(long);
	} else if (*oldlenp >= sizeof(int)) {
		int v = static_cast<int>(value);
		std::memcpy(oldp, &v, sizeof(int));
		*oldlenp = sizeof(int);
	} else {
		errno = ENOMEM;
		return -1;
	}
	return 0;
}

extern "C" const char *peer_re_name(void)
{
	static thread_local char buf[256];
	return platform_get("peer_address", buf, sizeof(buf)) == 0 ? buf : nullptr;
}

extern "C" int iri_gethostbyname(const char *name, uint32_t *addr_net)
{
	if (name == nullptr || *name == '\0')
		return EINVAL;
	struct addrinfo hints = {};
	hints.ai_family = AF_INET;
	hints.ai_socktype = SOCK_STREAM;
	struct addrinfo *res = nullptr;
	int rc = getaddrinfo(name, nullptr, &hints, &res);
	if (rc != 0 || res == nullptr)
		return rc == EAI_SYSTEM ? errno : EHOSTUNREACH;
	*addr_net = reinterpret_cast<struct sockaddr_in *>(res->ai_addr)->sin_addr.s_addr;
	freeaddrinfo(res);
	return 0;
}

extern "C" int iri_set_sa(int fd, const char *sa_name)
{
	(void)fd;
	(void)sa_name;
	return 0;
}
