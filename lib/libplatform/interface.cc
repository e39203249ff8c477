/*
 * Interface name parsing and the memory the kernel reports free.
 */
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/chassis.h"
#include "platform/interface.h"

namespace {

/* Reads a decimal number of at most 6 digits; advances s. */
bool number(const char *&s, int *out)
{
	if (!isdigit((unsigned char)*s))
		return false;
	long v = 0;
	int digits = 0;
	while (isdigit((unsigned char)*s)) {
		if (++digits > 6)
			return false;
		v = v * 10 + (*s++ - '0');
	}
	*out = (int)v;
	return true;
}

/* An optional ".<unit>" and then the end. */
bool unit_and_end(const char *s)
{
	int unit;
	if (*s == '.') {
		s++;
		if (!number(s, &unit))
			return false;
	}
	return *s == '\0';
}

bool bundle(const char *name, const char *prefix, int kind,
    interface_info *info)
{
	size_t n = strlen(prefix);
	if (strncmp(name, prefix, n) != 0)
		return false;
	const char *s = name + n;
	int num;
	if (!number(s, &num) || !unit_and_end(s))
		return false;
	info->kind = kind;
	info->number = num;
	snprintf(info->media, sizeof(info->media), "%s", prefix);
	return true;
}

} // namespace

extern "C" int parse_interface(const char *name, struct interface_info *info)
{
	if (name == nullptr || info == nullptr)
		return -1;
	*info = interface_info{};
	info->channel = INTERFACE_NO_CHANNEL;
	info->number = -1;
	if (bundle(name, "ae", INTERFACE_AE, info) ||
	    bundle(name, "rlt", INTERFACE_RLT, info) ||
	    bundle(name, "ps", INTERFACE_PS, info))
		return 0;
	const char *s = name;
	size_t m = 0;
	while (isalpha((unsigned char)s[m]) && m < sizeof(info->media) - 1)
		m++;
	if (m == 0 || s[m] != '-')
		return -1;
	memcpy(info->media, s, m);
	info->media[m] = '\0';
	s += m + 1;
	if (!number(s, &info->fpc) || *s++ != '/' ||
	    !number(s, &info->pic) || *s++ != '/' ||
	    !number(s, &info->port))
		return -1;
	if (*s == ':') {
		s++;
		if (!number(s, &info->channel))
			return -1;
	}
	if (!unit_and_end(s))
		return -1;
	info->kind = INTERFACE_PHYSICAL;
	return 0;
}

extern "C" int interface_info_get_max_ps_devices(void)
{
	return (int)platform_get_long("max_ps_devices", 4096);
}

extern "C" uint64_t platform_free_memory_bytes(void)
{
	long forced = platform_get_long("free_memory_bytes", -1);
	if (forced >= 0)
		return (uint64_t)forced;
	FILE *f = fopen("/proc/meminfo", "re");
	if (f == nullptr)
		return UINT64_MAX;	/* nothing to say: do not refuse */
	char line[128];
	uint64_t kb = UINT64_MAX / 1024;
	while (fgets(line, sizeof(line), f) != nullptr) {
		unsigned long long v;
		if (sscanf(line, "MemAvailable: %llu kB", &v) == 1) {
			kb = v;
			break;
		}
	}
	fclose(f);
	return kb * 1024;
}
