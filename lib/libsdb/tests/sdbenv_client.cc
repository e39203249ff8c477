/*
 * sdbenv-client: a small client of the session database for the process
 * tests.  It opens the database in the client's order, does one thing
 * with a lock, and reports on stdout, one line per step.  "hold-*"
 * commands keep what they took until they are killed.
 */
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/sem.h>
#include <unistd.h>
#include <vector>

#include <platform/paths.h>
#include <platform/trace.h>
#include <sdb/keel.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_id.h>
#include <sdb/sdb_fpc.h>
#include <sdb/sdb_limits.h>

namespace {

daemon_trace_file_t *trace_file;

void trace_sdb(struct keel_handle *, int, const char *fmt, va_list ap)
{
	daemon_tracev(trace_file, 0, 0, fmt, ap);
}

void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	vprintf(fmt, ap);
	va_end(ap);
	putchar('\n');
	fflush(stdout);
}

keel_handle *handle;

int open_db(void)
{
	handle = keel_init_handle();
	int rc = keel_register(handle);
	say("open %d %s", rc, sdb_strerror(rc));
	return rc;
}

int close_db(void)
{
	int rc = keel_unregister(&handle);
	say("close %d", rc);
	return rc;
}

[[noreturn]] void hold(void)
{
	for (;;)
		pause();
}

void on_signal(int)
{
}

/* A handler without SA_RESTART: a blocked semop returns EINTR. */
void interruptible(int sig)
{
	struct sigaction sa = {};
	sa.sa_handler = on_signal;
	sigemptyset(&sa.sa_mask);
	sigaction(sig, &sa, nullptr);
}

int sem_waiters(int number)
{
	int id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0);
	if (id < 0)
		return -1;
	return semctl(id, number, GETNCNT);
}

int sem_value(int number)
{
	int id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0);
	if (id < 0)
		return -1;
	return semctl(id, number, GETVAL);
}

void print_lts_counters(void)
{
	sdb_lts_header *h = sdb_lts_header_ptr();
	if (h == nullptr)
		return;
	say("owner_dead %u", h->bucket_owner_dead);
	say("bucket_waits %u", h->bucket_waits);
	say("locks_taken %" PRIu64, sdb_lts_counter64(h->bucket_locks_taken));
	say("locks_contended %" PRIu64,
	    sdb_lts_counter64(h->bucket_locks_contended));
}

/*
 * Take and give back units of the uid pool at random for seconds.  Each
 * unit held is claimed by a file made with O_EXCL under claims, made
 * after the unit is taken and removed before it is given back: a process
 * killed anywhere leaves at worst a unit that leaks, so a claim that
 * exists already means the unit was handed out twice (exit 3).
 */
int unit_soak(double seconds, unsigned seed)
{
	std::string claims = tolvar::path("/var/tmp/unit-claims");
	tolvar_mkdirs(claims.c_str(), 0755);
	srand(seed ^ (unsigned)getpid());
	std::vector<uint32_t> held;
	struct timespec t0, t;
	clock_gettime(CLOCK_MONOTONIC, &t0);
	uint64_t taken = 0;
	for (;;) {
		clock_gettime(CLOCK_MONOTONIC, &t);
		if ((double)(t.tv_sec - t0.tv_sec) +
		    (double)(t.tv_nsec - t0.tv_nsec) / 1e9 >= seconds)
			break;
		uint32_t u;
		if (held.size() < 40 && rand() % 3 != 0) {
			int rc = sdb_unit_allocate(&u, SDB_UNIT_UID);
			if (rc == SDB_UNIT_ERR_EMPTY)
				continue;
			if (rc != 0) {
				say("allocate %d", rc);
				return 1;
			}
			std::string f = claims + "/" + std::to_string(u);
			int fd = open(f.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
			if (fd < 0) {
				say("twice %u", u);
				return 3;
			}
			dprintf(fd, "%d\n", (int)getpid());
			close(fd);
			held.push_back(u);
			taken++;
		} else if (!held.empty()) {
			size_t i = (size_t)rand() % held.size();
			u = held[i];
			held[i] = held.back();
			held.pop_back();
			unlink((claims + "/" + std::to_string(u)).c_str());
			if (sdb_unit_release(u, SDB_UNIT_UID) != 0) {
				say("release %u", u);
				return 1;
			}
		}
	}
	say("ok taken=%" PRIu64, taken);
	return 0;
}

/*
 * Give back the units whose claims name a dead process, as a recovery
 * would.  Run by one process at a time: the claim goes first, then the
 * unit, in the takers' order.
 */
int unit_reclaim(void)
{
	std::string claims = tolvar::path("/var/tmp/unit-claims");
	DIR *d = opendir(claims.c_str());
	if (d == nullptr)
		return 0;
	int given = 0, rc = 0;
	while (struct dirent *e = readdir(d)) {
		if (e->d_name[0] == '.')
			continue;
		std::string f = claims + "/" + e->d_name;
		FILE *in = fopen(f.c_str(), "r");
		int pid = 0;
		if (in == nullptr || fscanf(in, "%d", &pid) != 1)
			pid = 0;
		if (in != nullptr)
			fclose(in);
		if (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH)
			continue;	/* a taker between open and write, or alive */
		unlink(f.c_str());
		uint32_t u = (uint32_t)strtoul(e->d_name, nullptr, 10);
		if (sdb_unit_release(u, SDB_UNIT_UID) != 0) {
			say("free %u", u);
			rc = 3;
		}
		given++;
	}
	closedir(d);
	say("reclaimed %d", given);
	return rc;
}

int usage(void)
{
	fprintf(stderr,
	    "usage: sdbenv-client open | hold-open | hold-bucket sid | "
	    "take-bucket sid |\n"
	    "       hold-write | write | hold-read | read | read-on-cue |\n"
	    "       hold-id | id-lock |\n"
	    "       id-set n | sem-waiters n | sem-value n |\n"
	    "       unit-soak seconds seed | unit-reclaim |\n"
	    "       login interface | logout interface | fpc-login slot\n");
	return 2;
}

int run(int argc, char **argv)
{
	const char *cmd = argv[1];
	uint64_t arg = argc > 2 ? strtoull(argv[2], nullptr, 0) : 0;

	if (strcmp(cmd, "sem-waiters") == 0) {
		say("%d", sem_waiters((int)arg));
		return 0;
	}
	if (strcmp(cmd, "sem-value") == 0) {
		say("%d", sem_value((int)arg));
		return 0;
	}
	if (strcmp(cmd, "id-lock") == 0)
		interruptible(SIGUSR1);
	sigset_t cue;
	sigemptyset(&cue);
	sigaddset(&cue, SIGUSR2);
	bool on_cue = strcmp(cmd, "read-on-cue") == 0;
	if (on_cue) {
		sigprocmask(SIG_BLOCK, &cue, nullptr);
		cmd = "read";
	}
	if (open_db() != 0)
		return 1;
	if (strcmp(cmd, "open") == 0) {
		say("state %d", sdb_db_env_state());
		return close_db() == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "hold-open") == 0) {
		say("held");
		hold();
	}
	if (strcmp(cmd, "hold-bucket") == 0 || strcmp(cmd, "take-bucket") == 0) {
		int rc = sdb_sentry_lock_acquire(arg);
		say("bucket %d", rc);
		if (cmd[0] == 'h') {
			say("held");
			hold();
		}
		print_lts_counters();
		sdb_sentry_lock_release(arg);
		return close_db() == 0 && rc == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "hold-write") == 0 || strcmp(cmd, "write") == 0 ||
	    strcmp(cmd, "hold-read") == 0 || strcmp(cmd, "read") == 0) {
		bool write = strstr(cmd, "write") != nullptr;
		int type = write ? SDB_LOCK_WRITE : SDB_LOCK_READ;
		if (on_cue) {
			int sig;
			say("ready");
			sigwait(&cue, &sig);
		}
		int rc = sdb_db_lock(type);
		say("locked %d", rc);
		if (on_cue && rc == 0) {
			/* Hold until killed or cued again. */
			int sig;
			sigwait(&cue, &sig);
		}
		if (cmd[0] == 'h') {
			say("held");
			hold();
		}
		rc = sdb_db_unlock(type);
		say("unlocked %d", rc);
		return close_db() == 0 && rc == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "hold-id") == 0 || strcmp(cmd, "id-lock") == 0) {
		if (cmd[0] == 'i')
			say("waiting");
		int rc = sdb_sem_lock(SDB_SEM_ID_GEN, true);
		say("locked %d", rc);
		if (cmd[0] == 'h') {
			say("held");
			hold();
		}
		sdb_sem_unlock(SDB_SEM_ID_GEN, true);
		return close_db() == 0 && rc == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "unit-soak") == 0 && argc > 3) {
		int rc = unit_soak(atof(argv[2]), (unsigned)atoi(argv[3]));
		return close_db() == 0 ? rc : 1;
	}
	if (strcmp(cmd, "unit-reclaim") == 0) {
		int rc = unit_reclaim();
		return close_db() == 0 ? rc : 1;
	}
	if (strcmp(cmd, "id-set") == 0) {
		int rc = sdb_sem_lock(SDB_SEM_ID_GEN, true);
		if (rc == 0) {
			*sdb_id_word() = arg;
			rc = sdb_sem_unlock(SDB_SEM_ID_GEN, true);
		}
		say("id %d", rc);
		return close_db() == 0 && rc == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "login") == 0 && argc > 2) {
		int ok = sdb_check_subscribers_limit(argv[2], 0);
		if (ok)
			sdb_subscriber_limit_counter_update(argv[2], 0, 1, 0, 0, 0);
		say("login %d", ok);
		return close_db() == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "fpc-login") == 0) {
		uint32_t reason = 0;
		int ok = sdb_fpc_login_check((uint32_t)arg, nullptr, 0, &reason);
		say("fpc %d reason %u", ok, reason);
		return close_db() == 0 ? 0 : 1;
	}
	if (strcmp(cmd, "logout") == 0 && argc > 2) {
		int rc = sdb_subscriber_limit_counter_update(argv[2], 0, 0, 0, 0,
		    0);
		say("logout %d", rc);
		return close_db() == 0 && rc == 0 ? 0 : 1;
	}
	return usage();
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 2)
		return usage();
	trace_file = daemon_trace_initialize("/var/log/sdbenv-client");
	sdb_set_trace_fn(trace_sdb);
	return run(argc, argv);
}
