/*
 * A heap file is outside bytes: the checker must describe any image, and
 * never read outside it or loop.
 */
#include "mmf/mmf_check.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	struct mmf_check_report rep;
	mmf_check_image(data, size, &rep);
	mmf_check_header(data, size, size, &rep);
	(void)mmf_check_status_text(rep.status);
	return 0;
}
