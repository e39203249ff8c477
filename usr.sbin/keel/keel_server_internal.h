/*
 * Inside keel's socket server: the connection record and the pieces that
 * the test control and the fuzz target reach.
 */
#ifndef KEEL_SERVER_INTERNAL_H
#define KEEL_SERVER_INTERNAL_H

#include "keel_server.h"

#include <sdb/keel_msg.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct keel_conn {
	int fd = -1;
	evFileID id{};
	bool selected = false;
	/* Bytes of the message being read; its size follows from its type. */
	uint8_t buf[KEEL_MSG_MAX_SIZE];
	size_t have = 0;
	bool registered = false;	/* answered with success */
	bool unregistered = false;	/* said goodbye: its close is no death */
	bool leaving = false;		/* told to go (mastership): the same */
	bool broken = false;		/* a send failed: drop it */
	std::string name;
	uint32_t pid = 0;
	keel_issu_block issu{};
	struct timespec accepted_at{};	/* on the event library's clock */
	struct timespec partial_at{};	/* the message in buf began */
	keel_conn *next = nullptr;
};

/*
 * How long a connection may stay without a registration, or a message
 * stay half-sent.  A client sends its registration as it connects, whole;
 * only a stuck or hostile one is ever near this.
 */
#define KEEL_CLIENT_IDLE_SECS	10

/* What the test control can make keel do. */
struct keel_server_override {
	bool answer_forced = false;	/* answer every registration ... */
	int32_t answer_status = 0;	/* ... with failure and this status */
	bool silent = false;		/* read registrations, never answer */
};

extern keel_server_override keel_server_test;

void	keel_server_log(int priority, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/*
 * Check a message that came whole from a client; NULL when it is well
 * formed, else the reason.  Pure: the fuzz target drives it directly.
 */
const char *keel_server_check(const uint8_t *msg, size_t len,
    bool registered);

/* The end of this connection means its process died. */
bool	keel_server_is_death(const keel_conn *c);

/* Take bytes that came from a client (read or, in the fuzz target,
 * handed over); false when the connection had to be closed. */
bool	keel_server_feed(keel_conn *c, const uint8_t *data, size_t len);
keel_conn *keel_server_adopt(int fd);
void	keel_server_drop(keel_conn *c);
void	keel_server_drop_all(void);
keel_conn *keel_server_clients(void);
/* -1 when the client could not take it; the caller then drops it. */
int	keel_server_send(keel_conn *c, const void *msg, size_t len);

/* The test control (keel_server_control.cc). */
int	keel_server_control_init(evContext ctx);
void	keel_server_control_shutdown(void);

#endif
