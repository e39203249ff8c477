/*
 * mirror-driver's queued class (-Q): data id 4, "Driver queue", whose
 * items go through the library's data queues.  An item is a key with a
 * text; it is encoded as "<key>:<text>", so a receiver prints
 * "recv id=4 op=<op> len=<n> data=<key>:<text>".
 *
 * Commands:
 *
 *	qreg [standby|master|both] [unpaced] [noresync]
 *				register the class (receiver both by default)
 *	item <key> <text>	make or change an item without queuing it
 *	add|update|delete <key> <ack> [text]
 *				queue the item; prints "queued key=<k> rc=<rc>"
 *	unqueue <key>		take the item off the queues
 *	qfill <first> <count> <size> <ack>
 *				make and queue count items of size bytes;
 *				prints "qfill rc0=<n> rc1=<n> rc2=<n>"
 *	resync <id>		ask the peer for the class again
 *	qstatus			"qstatus locks=<held> lock_calls=<n>
 *				unlock_calls=<n> queued=<n> waiting=<n>
 *				acks0=<n> acks1=<n> items=<n> errors=<n>"
 *
 * Events: "ack key=<k> reason=<r>", "qeod count=<n> receiver=<0|1>",
 * "qclear", "lock-error key=<k>" (an unlock of an item the library does
 * not hold).
 */
#include "mirror_driver_queue.h"
#include "mirror_queue.h"

#include <orx/mirror_data.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

namespace {

struct drv_item {
	mirror_data_node node{};	/* first: the node is the item */
	unsigned key = 0;
	std::string text;
	int	locks = 0;
};

std::map<unsigned, std::unique_ptr<drv_item>> items;
mirror_reg_entry queue_class;
bool registered;
uint64_t lock_calls, unlock_calls, acks0, acks1, lock_errors;

void
out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void
out(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	vprintf(fmt, ap);
	va_end(ap);
	putchar('\n');
	fflush(stdout);
}

drv_item *
of(mirror_data_node *n)
{
	return reinterpret_cast<drv_item *>(n);
}

void
q_lock(mirror_data_node *n)
{
	of(n)->locks++;
	lock_calls++;
}

void
q_unlock(mirror_data_node *n)
{
	unlock_calls++;
	if (--of(n)->locks < 0) {
		lock_errors++;
		out("lock-error key=%u", of(n)->key);
	}
}

int
q_encode(mirror_data_node *n, uint8_t *buf, uint32_t room)
{
	drv_item *it = of(n);
	char head[16];
	int h = snprintf(head, sizeof(head), "%u:", it->key);
	size_t need = static_cast<size_t>(h) + it->text.size();
	if (need > room)
		return 0;
	std::memcpy(buf, head, static_cast<size_t>(h));
	std::memcpy(buf + h, it->text.data(), it->text.size());
	return static_cast<int>(need);
}

void
q_decode(mirror_recvd_data *rd)
{
	std::string text(reinterpret_cast<const char *>(rd->data),
	    std::min<uint32_t>(rd->got_len, 64));
	for (char &c : text)
		if (c < 0x20 || c > 0x7e)
			c = '.';
	out("recv id=%u op=%u len=%u data=%s", rd->data_id, rd->op, rd->got_len, text.c_str());
}

/* Keys in order: a resync walks them from the lowest. */
mirror_data_node *
q_next(mirror_data_node *n)
{
	auto it = n == nullptr ? items.begin() : items.upper_bound(of(n)->key);
	return it == items.end() ? nullptr : &it->second->node;
}

void
q_clear()
{
	out("qclear");
}

void
q_ack(mirror_data_node *n, int reason)
{
	(reason == 0 ? acks0 : acks1)++;
	out("ack key=%u reason=%d", of(n)->key, reason);
}

void
q_eod(uint32_t count, int is_receiver)
{
	out("qeod count=%u receiver=%d", count, is_receiver);
}

drv_item *
item_for(unsigned key)
{
	std::unique_ptr<drv_item> &slot = items[key];
	if (!slot) {
		slot = std::make_unique<drv_item>();
		slot->key = key;
		mirror_data_node_init(&slot->node, DRIVER_QUEUE_ID);
	}
	return slot.get();
}

void
cmd_qreg(const std::string &line)
{
	if (registered) {
		out("bad-command %s", line.c_str());
		return;
	}
	queue_class.mirror_data_lock_func = q_lock;
	queue_class.mirror_data_unlock_func = q_unlock;
	queue_class.mirror_data_encode_func = q_encode;
	queue_class.mirror_data_decode_func = q_decode;
	queue_class.mirror_data_get_next_func = q_next;
	queue_class.mirror_data_clear_func = q_clear;
	queue_class.mirror_data_ack_func = q_ack;
	queue_class.mirror_data_eod_func = q_eod;
	queue_class.mirror_receiver = MIRROR_RECEIVER_BOTH;
	if (line.find("standby") != std::string::npos)
		queue_class.mirror_receiver = MIRROR_RECEIVER_STANDBY;
	if (line.find("master") != std::string::npos)
		queue_class.mirror_receiver = MIRROR_RECEIVER_MASTER;
	queue_class.mirror_resync_unpaced = line.find("unpaced") != std::string::npos;
	queue_class.mirror_no_resync = line.find("noresync") != std::string::npos;
	queue_class.mirror_data_id = DRIVER_QUEUE_ID;
	registered = true;
	mirror_register_data(&queue_class);
	out("qreg-done");
}

void
cmd_op(const std::string &cmd, const std::string &line)
{
	unsigned key, ack;
	int pos = 0;
	if (sscanf(line.c_str(), "%*s %u %u%n", &key, &ack, &pos) != 2) {
		out("bad-command %s", line.c_str());
		return;
	}
	drv_item *it = item_for(key);
	if (static_cast<size_t>(pos) < line.size())
		it->text = line.substr(static_cast<size_t>(pos) + 1);
	int rc = cmd == "add" ? mirror_add(&it->node, static_cast<uint8_t>(ack)) :
	    cmd == "update" ? mirror_update(&it->node, static_cast<uint8_t>(ack)) :
	    mirror_delete(&it->node, static_cast<uint8_t>(ack));
	out("queued key=%u rc=%d", key, rc);
}

void
cmd_qfill(const std::string &line)
{
	unsigned first, count, size, ack;
	if (sscanf(line.c_str(), "qfill %u %u %u %u", &first, &count, &size, &ack) != 4) {
		out("bad-command %s", line.c_str());
		return;
	}
	unsigned rc[3] = {};
	for (unsigned k = first; k < first + count; k++) {
		drv_item *it = item_for(k);
		it->text.assign(size, 'f');
		int r = mirror_add(&it->node, static_cast<uint8_t>(ack));
		rc[r >= 0 && r <= 2 ? r : 0]++;
	}
	out("qfill rc0=%u rc1=%u rc2=%u", rc[0], rc[1], rc[2]);
}

void
cmd_qstatus()
{
	int held = 0;
	for (auto &kv : items)
		held += kv.second->locks;
	out("qstatus locks=%d lock_calls=%llu unlock_calls=%llu queued=%u waiting=%u "
	    "acks0=%llu acks1=%llu items=%zu errors=%llu",
	    held, static_cast<unsigned long long>(lock_calls),
	    static_cast<unsigned long long>(unlock_calls), mirror_q.len,
	    mirror_q.q[MIRRORQ_ACK_WAIT].mirq_n_queued, static_cast<unsigned long long>(acks0),
	    static_cast<unsigned long long>(acks1), items.size(),
	    static_cast<unsigned long long>(lock_errors));
}

} // namespace

bool
driver_queue_command(const std::string &cmd, const std::string &line)
{
	unsigned key;
	if (cmd == "qreg") {
		cmd_qreg(line);
	} else if (cmd == "item") {
		int pos = 0;
		if (sscanf(line.c_str(), "item %u%n", &key, &pos) != 1) {
			out("bad-command %s", line.c_str());
			return true;
		}
		drv_item *it = item_for(key);
		it->text = static_cast<size_t>(pos) < line.size() ?
		    line.substr(static_cast<size_t>(pos) + 1) : "";
		out("item-done key=%u", key);
	} else if (cmd == "add" || cmd == "update" || cmd == "delete") {
		cmd_op(cmd, line);
	} else if (cmd == "unqueue") {
		if (sscanf(line.c_str(), "unqueue %u", &key) == 1 && items.count(key)) {
			mirror_unqueue(&items[key]->node);
			out("unqueued key=%u", key);
		} else {
			out("bad-command %s", line.c_str());
		}
	} else if (cmd == "qfill") {
		cmd_qfill(line);
	} else if (cmd == "resync") {
		if (sscanf(line.c_str(), "resync %u", &key) == 1)
			out("resync-requested rc=%d", mirror_request_db_resync(key));
		else
			out("bad-command %s", line.c_str());
	} else if (cmd == "qstatus") {
		cmd_qstatus();
	} else {
		return false;
	}
	return true;
}
