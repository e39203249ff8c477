/*
 * The recovery log: while its switch is on, a rebuild of the tables
 * appends what it found to "/var/log/sdb.recover", one row per session
 * and per service, and both unit pools as they came out.  The file is
 * open only between begin and end.
 */
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <arpa/inet.h>

#include "platform/paths.h"
#include "sdb/sdb_id.h"
#include "sdb_impl.h"

void sdb_unit_dump_to(FILE *out, int type);

namespace {

constexpr const char *log_file = "/var/log/sdb.recover";
bool enabled;
FILE *log_fp;

/* The local time, as ctime gives it without its newline. */
std::string now_text(void)
{
	char buf[64];
	time_t t = time(nullptr);
	struct tm tm;
	localtime_r(&t, &tm);
	if (strftime(buf, sizeof(buf), "%a %b %e %H:%M:%S %Y", &tm) == 0)
		buf[0] = '\0';
	return buf;
}

} // namespace

extern "C" void sdb_recover_log_set(bool on)
{
	enabled = on;
}

extern "C" bool sdb_recover_log_enabled(void)
{
	return enabled;
}

extern "C" int sdb_recover_log_begin(void)
{
	if (!enabled || log_fp != nullptr)
		return 0;
	std::string path = tolvar::path(log_file);
	log_fp = fopen(path.c_str(), "a");
	if (log_fp == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open debug file %s",
		    path.c_str());
		return SDB_ERR_FATAL;
	}
	sdb_trace(SDB_TRACE_INFO, "SDB debug enabled, creating log");
	fprintf(log_fp, "--== Recover start at %s ==--\n", now_text().c_str());
	fprintf(log_fp, "Id\tservice\tstate\tIP\n");
	fprintf(log_fp, "--\t-------\t-----\t--\n");
	return 0;
}

extern "C" void sdb_recover_log_session(uint64_t id, int services, int state,
    uint32_t ipv4)
{
	if (log_fp == nullptr)
		return;
	char ip[INET_ADDRSTRLEN] = "";
	struct in_addr a = {ipv4};
	inet_ntop(AF_INET, &a, ip, sizeof(ip));
	fprintf(log_fp, "%llu\t%d\t%d\t%s\n", (unsigned long long)id, services,
	    state, ip);
}

extern "C" void sdb_recover_log_service(uint64_t id, int state)
{
	if (log_fp != nullptr)
		fprintf(log_fp, "\tService id %llu, State %d\n",
		    (unsigned long long)id, state);
}

extern "C" void sdb_recover_log_service_failed(uint64_t id)
{
	if (log_fp != nullptr)
		fprintf(log_fp,
		    "\tService id %llu, Failed to get service session snapshot\n",
		    (unsigned long long)id);
}

extern "C" void sdb_recover_log_end(void)
{
	if (log_fp == nullptr)
		return;
	for (int t = 0; t < SDB_UNIT_TYPES; t++)
		sdb_unit_dump_to(log_fp, t);
	fprintf(log_fp, "--== Recover completed at %s ==--\n",
	    now_text().c_str());
	fclose(log_fp);
	log_fp = nullptr;
}
