/*
 * Linked into every fuzz target: the target runs inside a root of its own,
 * made before anything resolves a path, so that the events and traces
 * that the code under test writes never reach the host's /var/log.  The
 * root goes when the target exits.
 */
#include <cstdio>
#include <cstdlib>
#include <ftw.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

char fuzz_root[] = "/tmp/tolvar-fuzz-XXXXXX";
pid_t maker;	/* a child that libFuzzer forks leaves the root alone */

int remove_one(const char *path, const struct stat *, int, struct FTW *)
{
	remove(path);
	return 0;
}

void remove_root(void)
{
	if (getpid() == maker)
		nftw(fuzz_root, remove_one, 16, FTW_DEPTH | FTW_PHYS);
}

__attribute__((constructor(101))) void make_root(void)
{
	if (mkdtemp(fuzz_root) == nullptr) {
		perror("fuzz: mkdtemp");
		_exit(1);
	}
	for (const char *d : {"/etc", "/etc/tolvar", "/var", "/var/run",
	    "/var/log", "/var/tmp", "/var/db"})
		mkdir((std::string(fuzz_root) + d).c_str(), 0755);
	maker = getpid();
	setenv("TOLVAR_ROOT", fuzz_root, 1);
	atexit(remove_root);
}

} // namespace
