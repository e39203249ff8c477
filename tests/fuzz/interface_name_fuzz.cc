/*
 * Interface names as a session writer hands them in: parse_interface must
 * take any bytes, and what it accepts must be within the shapes it knows.
 */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/interface.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string name(reinterpret_cast<const char *>(data), size);
	interface_info info;
	if (parse_interface(name.c_str(), &info) != 0)
		return 0;
	if (info.kind == INTERFACE_PHYSICAL) {
		if (info.fpc < 0 || info.pic < 0 || info.port < 0 ||
		    info.channel < INTERFACE_NO_CHANNEL || info.media[0] == '\0')
			abort();
	} else if (info.number < 0) {
		abort();
	}
	return 0;
}
