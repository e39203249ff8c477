/*
 * The header of sdb_intf.db is stored bytes that keel and every client
 * trust once the check has passed: a header it passes must keep every
 * offset inside the object, whatever the bytes.
 */
#include "sdb_impl.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	sdb_db_info h;
	uint32_t file_size;
	if (size < sizeof(h) + sizeof(file_size))
		return 0;
	memcpy(&h, data, sizeof(h));
	memcpy(&file_size, data + sizeof(h), sizeof(file_size));
	if (sdb_db_info_fault(&h, file_size) != nullptr)
		return 0;
	if (h.global_size > file_size || h.next_offset > h.global_size ||
	    h.next_offset < SDB_DB_INFO_SIZE || h.grow_step == 0)
		__builtin_trap();
	for (uint32_t off : {h.intf_root, h.uid_root, h.ls_root, h.ri_root,
	    h.parent_root, h.app_def_root, h.intf_free_list_head,
	    h.session_free_list_head, h.bucket_free_list_head[5]})
		if (off != 0 && (off < SDB_DB_INFO_SIZE || off >= h.global_size))
			__builtin_trap();
	return 0;
}
