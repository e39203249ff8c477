/*
 * Every test binary runs below a root of its own, made before the first
 * path is resolved, and in an IPC namespace of its own, entered at the
 * same time.
 */
#ifndef MMF_TEST_ROOT_H
#define MMF_TEST_ROOT_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sched.h>
#include <unistd.h>
#include <sys/stat.h>

#include "mmf/mmf.h"
#include "platform/paths.h"

inline const std::string &test_root()
{
	static const std::string root = [] {
		/* ctest runs the binary as it is: the namespace is
		 * entered here, before any key is used. */
		if (unshare(CLONE_NEWIPC) != 0)
			abort();
		char tmpl[] = "/tmp/mmf-test-XXXXXX";
		std::string r = mkdtemp(tmpl);
		setenv("TOLVAR_ROOT", r.c_str(), 1);
		setenv("TOLVAR_NO_GCORE", "1", 1);
		mmf_mkdir_path("/mfs/var/test");
		mmf_mkdir_path("/var/log");
		static pid_t owner = getpid();
		atexit([] {
			if (getpid() == owner)
				std::filesystem::remove_all(tolvar_root());
		});
		return r;
	}();
	return root;
}

/* A fresh store name below the root. */
inline std::string store_name(const std::string &leaf)
{
	test_root();
	std::string name = "/mfs/var/test/" + leaf;
	mmf_unlink(name.c_str());
	return name;
}

#endif
