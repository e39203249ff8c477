/*
 * Inside the subscriber limits: access to the shared words and the helpers
 * shared by the record, check and table code.
 */
#ifndef SDB_LIMITS_IMPL_H
#define SDB_LIMITS_IMPL_H

#include <atomic>
#include <cstdint>
#include <span>

#include "platform/interface.h"
#include "sdb/sdb_limits.h"
#include "sdb_impl.h"

namespace sdb_limits {

template <typename T> inline std::atomic_ref<T> word(T &w)
{
	return std::atomic_ref<T>(w);
}

/* The records, or an empty span when the segment is not attached. */
std::span<sdb_sub_limit_record> records(void);
sdb_sub_limit_hdr *header(void);

/* Holds the table lock for a scope; ok() tells whether it was had. */
class table_guard {
public:
	table_guard() : rc_(sdb_limit_table_lock()) {}
	~table_guard()
	{
		if (rc_ == 0)
			sdb_limit_table_unlock();
	}
	table_guard(const table_guard &) = delete;
	table_guard &operator=(const table_guard &) = delete;
	bool ok(void) const { return rc_ == 0; }
	int rc(void) const { return rc_; }

private:
	int rc_;
};

/* Holds sdb_process_thread_safe_lock: close cannot detach meanwhile. */
class attach_guard {
public:
	attach_guard() { sdb_process_thread_safe_lock(); }
	~attach_guard() { sdb_process_thread_safe_unlock(); }
	attach_guard(const attach_guard &) = delete;
	attach_guard &operator=(const attach_guard &) = delete;
};

uint64_t make_key(uint32_t ctype, uint32_t fpc, uint32_t pic, uint32_t port,
    uint32_t chan, uint32_t lt);
uint64_t key_with_type(uint64_t key, uint32_t ctype);
/* The key of the next level up; false at the chassis level. */
bool parent_key(uint64_t key, uint64_t *parent);

/* Find, or make under the table lock; index out. */
int find_or_create(uint64_t key, uint32_t *index, bool set_parent,
    uint16_t parent);
/* The record one level up, checked against the key, repaired when a
 * decrement to 0 had cut the link.  -6 at the chassis, -5 on a wrong
 * link, -7/-2 when it cannot be found or made. */
int parent_of(uint32_t index, uint32_t *parent);
void increment(uint32_t index);
void decrement(uint32_t index);

/* Interface names. */
int parse_name(const char *name, interface_info *info);
int members(const char *name, sdb_ifd_member *out, uint32_t capacity,
    uint32_t *count);

/* The internal forms of the public entries, without attach_guard. */
int check_limit(const char *name, uint32_t client_flags);
int check_limit_ps(const char *name, uint32_t client_flags);
int counter_update(const char *name, uint32_t client_flags, bool increment,
    bool member, bool skip_fpc, bool skip_pic);
int ps_anchor(const char *ps_name, char *anchor, size_t size);
sdb_ps_record *ps_find(uint32_t ps_num, uint32_t *index);

} // namespace sdb_limits

/* Attach, and for keel create, the four segments; detach all four. */
int sdb_limit_segments_attach(bool is_keel);
void sdb_limit_segments_detach(void);

#endif
