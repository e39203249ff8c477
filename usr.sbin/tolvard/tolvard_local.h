/*
 * Messages of tolvard's local socket, "/var/run/tolvard_server_communication".
 *
 * A stream of messages in host byte order, each beginning with a u32 type.
 * REG (0) is exactly 80 bytes and names the client; ACK (1) is 8 bytes
 * and a body of `words` u32 words that the daemon does not read.  The
 * daemon answers an ACK with the same bytes once everything it sent to the
 * standby before has been acknowledged, or at once when there is no
 * standby to wait for.
 *
 * The walker below is the one parser of client bytes in the daemon.  It
 * reads only inside the span it is given and never trusts a length from
 * the wire: a message that claims more than is there ends the walk.
 */
#ifndef TOLVARD_LOCAL_H
#define TOLVARD_LOCAL_H

#include <cstddef>
#include <cstdint>
#include <span>

#define TOLVARD_SERVER_PATH	"/var/run/tolvard_server_communication"

#define TOLVARD_LOCAL_REG	0
#define TOLVARD_LOCAL_ACK	1

#define TOLVARD_LOCAL_BACKLOG	60
#define TOLVARD_LOCAL_RECV_MAX	364800	/* bytes taken by one read */
#define TOLVARD_LOCAL_SOCKBUF	65535
#define TOLVARD_LOCAL_NAME_MAX	64

struct tolvard_reg_msg {
	uint32_t type;				/* TOLVARD_LOCAL_REG */
	char name[TOLVARD_LOCAL_NAME_MAX];	/* process name */
	uint32_t pid;
	uint32_t flags;				/* bit 0: transition state up */
	int32_t status;				/* a session database code */
};

struct tolvard_ack_msg {
	uint32_t type;				/* TOLVARD_LOCAL_ACK */
	uint32_t words;				/* u32 words of body behind */
};

static_assert(sizeof(tolvard_reg_msg) == 80);
static_assert(offsetof(tolvard_reg_msg, type) == 0);
static_assert(offsetof(tolvard_reg_msg, name) == 4);
static_assert(offsetof(tolvard_reg_msg, pid) == 68);
static_assert(offsetof(tolvard_reg_msg, flags) == 72);
static_assert(offsetof(tolvard_reg_msg, status) == 76);
static_assert(sizeof(tolvard_ack_msg) == 8);
static_assert(offsetof(tolvard_ack_msg, type) == 0);
static_assert(offsetof(tolvard_ack_msg, words) == 4);

#define TOLVARD_REG_UP		0x1	/* flags bit 0 */

/* Whole size of an ACK with this many body words (never overflows). */
constexpr uint64_t tolvard_ack_size(uint32_t words)
{
	return sizeof(tolvard_ack_msg) + 4 * static_cast<uint64_t>(words);
}

namespace tolvard_local {

enum class walk_status {
	done,		/* every message handled */
	too_small,	/* fewer than 4 bytes where a type should be */
	unknown_type,
	short_reg,	/* a REG with fewer than 80 bytes left */
	ack_overrun,	/* an ACK whose body runs past what is there */
	step_failed,	/* a handler refused; it has dealt with the cause */
};

struct walk_result {
	walk_status status;
	uint32_t type;		/* type of the message that stopped the walk */
	uint64_t need;		/* bytes it needed */
	size_t have;		/* bytes that were left */
};

/* What the walker calls for each whole message; false stops the walk. */
class walk_sink {
public:
	virtual bool reg(const tolvard_reg_msg &msg) = 0;
	/* The whole message, header and body, inside the walked span. */
	virtual bool ack(std::span<const uint8_t> msg) = 0;

protected:
	~walk_sink() = default;
};

walk_result walk(std::span<const uint8_t> bytes, walk_sink &sink);

} // namespace tolvard_local

#endif
