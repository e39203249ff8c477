/*
 * The opener meets a file it did not write: whatever the bytes, mmf_create
 * either refuses with EUCLEAN or opens a store on which allocation and
 * freeing work (or stop with the handle marked corrupt) - never a crash.
 */
#include "mmf/mmf.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	/* The store is "/heap" below a root of our own; its events go
	 * there too and are thrown away after each input. */
	static const std::string dir = [] {
		char tmpl[] = "/tmp/mmf-open-fuzz-XXXXXX";
		std::string d = mkdtemp(tmpl);
		setenv("TOLVAR_ROOT", d.c_str(), 1);
		setenv("TOLVAR_NO_GCORE", "1", 1);
		return d;
	}();
	if (size < 1 || size > (1 << 16))
		return 0;
	std::string path = dir + "/heap";
	/* Byte 0 chooses the geometry; the rest is the file. */
	bool whole = data[0] & 1;
	int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
	if (fd < 0)
		return 0;
	if (write(fd, data + 1, size - 1) != ssize_t(size - 1)) {
		close(fd);
		return 0;
	}
	close(fd);
	const uint32_t sizes[] = {16, 64, 256};
	mmf_t *m = whole ?
	    mmf_create("/heap", 16384, 16384, 16384, true, 0, 1, 3, sizes,
	    0, nullptr) :
	    mmf_create("/heap", 65536, 16384, 16384, false, 16384, 2, 3,
	    sizes, 0, nullptr);
	if (m != nullptr) {
		std::vector<uint64_t> offs;
		for (uint32_t i = 0; i < 8; i++) {
			uint64_t off;
			if (mmf_alloc(m, 8 + 40 * i, &off) != nullptr)
				offs.push_back(off);
		}
		for (uint64_t off : offs)
			mmf_free_offset(m, off);
		mmf_valid(m, false);
		mmf_close(m);
	}
	unlink(path.c_str());
	unlink((dir + "/var/log/events").c_str());
	return 0;
}
