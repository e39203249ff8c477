/*
 * Messages on keel's socket, "/var/run/keel_server_communication", an
 * AF_UNIX stream socket.  Both ends are on one machine: every integer is
 * in host order.  Each message starts with a u32 type; its size follows
 * from the type alone, so a reader knows how much to wait for.  These
 * layouts are a format shared with keel: every offset is checked below.
 */
#ifndef SDB_KEEL_MSG_H
#define SDB_KEEL_MSG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEEL_SOCKET_PATH	"/var/run/keel_server_communication"

/* Client to keel. */
#define KEEL_MSG_REGISTER	0	/* also unregisters */
#define KEEL_MSG_REP_STATE	1	/* replication state, default */
#define KEEL_MSG_RECOVERY_DONE	2
#define KEEL_MSG_ISSU		4
#define KEEL_MSG_REP_STATE1	6
#define KEEL_MSG_REP_STATE2	7

/* Keel to client. */
#define KEEL_MSG_REG_ANSWER	0
#define KEEL_MSG_CHASSIS_ISSU	3
#define KEEL_MSG_MASTERSHIP	5

/* Daemon ISSU states. */
#define KEEL_ISSU_IDLE			0
#define KEEL_ISSU_PREPARE		1
#define KEEL_ISSU_READY			2
#define KEEL_ISSU_SWITCHOVER_PREPARE	3
#define KEEL_ISSU_SWITCHOVER_READY	4
#define KEEL_ISSU_ABORT			5
#define KEEL_ISSU_UNKNOWN		6

/* Chassis ISSU messages. */
#define KEEL_CHASSIS_IDLE				0
#define KEEL_CHASSIS_DAEMON_ISSU_PREPARE		1
#define KEEL_CHASSIS_DAEMON_ISSU_PREPARE_DONE		2
#define KEEL_CHASSIS_FRU_ISSU				3
#define KEEL_CHASSIS_FRU_ISSU_DONE			4
#define KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE		5
#define KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE	6
#define KEEL_CHASSIS_ABORT				7
#define KEEL_CHASSIS_UNKNOWN				8

#define KEEL_ISSU_TEXT_LEN	128
#define KEEL_NAME_LEN		64

/* The daemon's ISSU state; the client's handle holds it in this form. */
typedef struct keel_issu_block {
	uint32_t state;		/* KEEL_ISSU_* */
	uint32_t wait;		/* seconds the daemon asks for */
	uint32_t text_len;	/* with the terminator; 0 without text */
	char text[KEEL_ISSU_TEXT_LEN];
} keel_issu_block;

/* Registration flags. */
#define KEEL_REG_REGISTER	0x01	/* 0 unregisters */
#define KEEL_REG_MASTER		0x02	/* master in the client's view */

typedef struct keel_msg_register {
	uint32_t type;			/* KEEL_MSG_REGISTER */
	char name[KEEL_NAME_LEN];	/* terminated */
	uint32_t pid;
	uint8_t flags;			/* KEEL_REG_* */
	uint8_t issu_capable;
	uint8_t reserved[2];
	uint32_t error;			/* of an unregistration */
	uint32_t recovery_state;
	keel_issu_block issu;
} keel_msg_register;

typedef struct keel_msg_issu {
	uint32_t type;			/* KEEL_MSG_ISSU */
	keel_issu_block issu;
} keel_msg_issu;

/* Answer flags. */
#define KEEL_ANSWER_SUCCESS	0x01

typedef struct keel_msg_answer {
	uint32_t type;			/* KEEL_MSG_REG_ANSWER */
	uint32_t flags;
	uint32_t status;		/* a negative library status */
	uint32_t daemon_issu;
	uint32_t chassis_issu;
} keel_msg_answer;

typedef struct keel_msg_chassis_issu {
	uint32_t type;			/* KEEL_MSG_CHASSIS_ISSU */
	uint32_t msg;
} keel_msg_chassis_issu;

typedef struct keel_msg_mastership {
	uint32_t type;			/* KEEL_MSG_MASTERSHIP */
	uint8_t master;			/* 1 master, 0 standby */
	uint8_t pad[3];
} keel_msg_mastership;

#define KEEL_MSG_MAX_SIZE	sizeof(keel_msg_register)

/*
 * Size of a whole message of the given type, type word included, or 0 for
 * a type that the receiver does not know.
 */
static inline size_t
keel_msg_to_keel_size(uint32_t type)
{
	switch (type) {
	case KEEL_MSG_REGISTER:
		return sizeof(keel_msg_register);
	case KEEL_MSG_REP_STATE:
	case KEEL_MSG_RECOVERY_DONE:
	case KEEL_MSG_REP_STATE1:
	case KEEL_MSG_REP_STATE2:
		return sizeof(uint32_t);
	case KEEL_MSG_ISSU:
		return sizeof(keel_msg_issu);
	default:
		return 0;
	}
}

static inline size_t
keel_msg_to_client_size(uint32_t type)
{
	switch (type) {
	case KEEL_MSG_REG_ANSWER:
		return sizeof(keel_msg_answer);
	case KEEL_MSG_CHASSIS_ISSU:
		return sizeof(keel_msg_chassis_issu);
	case KEEL_MSG_MASTERSHIP:
		return sizeof(keel_msg_mastership);
	default:
		return 0;
	}
}

#ifdef __cplusplus
}

static_assert(offsetof(keel_issu_block, wait) == 4);
static_assert(offsetof(keel_issu_block, text_len) == 8);
static_assert(offsetof(keel_issu_block, text) == 12);
static_assert(sizeof(keel_issu_block) == 140);

static_assert(offsetof(keel_msg_register, name) == 4);
static_assert(offsetof(keel_msg_register, pid) == 68);
static_assert(offsetof(keel_msg_register, flags) == 72);
static_assert(offsetof(keel_msg_register, issu_capable) == 73);
static_assert(offsetof(keel_msg_register, reserved) == 74);
static_assert(offsetof(keel_msg_register, error) == 76);
static_assert(offsetof(keel_msg_register, recovery_state) == 80);
static_assert(offsetof(keel_msg_register, issu) == 84);
static_assert(sizeof(keel_msg_register) == 224);

static_assert(offsetof(keel_msg_issu, issu) == 4);
static_assert(sizeof(keel_msg_issu) == 144);

static_assert(offsetof(keel_msg_answer, flags) == 4);
static_assert(offsetof(keel_msg_answer, status) == 8);
static_assert(offsetof(keel_msg_answer, daemon_issu) == 12);
static_assert(offsetof(keel_msg_answer, chassis_issu) == 16);
static_assert(sizeof(keel_msg_answer) == 20);
static_assert(sizeof(keel_msg_chassis_issu) == 8);
static_assert(offsetof(keel_msg_mastership, master) == 4);
static_assert(sizeof(keel_msg_mastership) == 8);
#else
_Static_assert(sizeof(keel_msg_register) == 224, "registration layout");
_Static_assert(sizeof(keel_issu_block) == 140, "ISSU block layout");
#endif

#endif
