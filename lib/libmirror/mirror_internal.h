/*
 * What the modules of the mirror library share: the one link of the
 * process, and the seam between the connection engine and the data queues.
 */
#ifndef MIRROR_INTERNAL_H
#define MIRROR_INTERNAL_H

#include "mirror_host.h"
#include "mirror_wire.h"

#include <span>

/* The single link of a process.  All of it lives on the event loop. */
struct mirror_link {
	mirror_state	st{};
	bool		set_up = false;
	mirror_task	*task = nullptr;
	mirror_task	*listen_task = nullptr;
	mirror_timer	*connect_timer = nullptr;
	mirror_timer	*listen_timer = nullptr;
	mirror_timer	*standby_wait_timer = nullptr;
	mirror_timer	*keepalive_send_timer = nullptr;
	mirror_timer	*keepalive_recv_timer = nullptr;
	mirror_timer	*control_timer = nullptr;	/* until both controls are done */
	mirror_job	*rx_job = nullptr;	/* a walk cut short resumes here */
	uint32_t	retry_period = 2;
	uint8_t		cntrl_written = 0;
	uint32_t	tx_cntrl_done = 0;
	uint32_t	rx_cntrl_done = 0;
	uint8_t		peer_seen = 0;
	uint8_t		terminating = 0;
	uint8_t		re_is_master = 0;
	uint8_t		cntrl2_enabled = 1;
	uint8_t		rx_disabled = 0;	/* the ring filled up */
	uint32_t	sock_buf_size = 0;
	uint8_t		*tx_buf = nullptr;
	uint32_t	tx_len = 0;
	uint32_t	tx_pos = 0;
	int		tx_error = 0;
	long		tx_open_main = -1;	/* data TLV still taking records */
	uint8_t		*rx_buf = nullptr;
	uint32_t	rx_in = 0;
	uint32_t	rx_out = 0;
	uint32_t	effective_tx = MIRROR_EFFECTIVE_TX_BUFF_MIN;
	uint64_t	generation = 0;		/* bumped by every reset */
	mirror_peer_record peer{};
	mirror_link_stats stats{};
	mirror_reg_entry **reg = nullptr;	/* MIRROR_DATA_LAST entries */
};

extern mirror_link mirror_l;

/* The word behind the effective send buffer. */
inline uint32_t *
mirror_tx_redzone()
{
	return reinterpret_cast<uint32_t *>(mirror_l.tx_buf + mirror_l.effective_tx);
}

/* Bytes the receive ring holds. */
constexpr uint32_t mirror_rx_capacity = MIRROR_READ_BUFF_SIZE - 1;

#define mirror_peer_close() mirror_peer_close_actual(__func__, __LINE__)
/* Something of the peer's refused without a close: warning and event. */
void mirror_peer_refused(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void mirror_peer_close_actual(const char *func, int line);
int mirror_data_transmit();
bool mirror_is_receiver(const mirror_reg_entry *entry);
void mirror_report_state(int state);

/*
 * The data queues' side of the seam.  The connection engine calls these at
 * the points where the queues have work: they must not assume more than is
 * said here.
 */
void mirror_q_setup();				/* library classes */
void mirror_q_send_schedule();			/* room or link changed */
void mirror_q_link_up();			/* resync decisions */
void mirror_q_clear();			/* drop queues, post acks */
void mirror_q_rx_reset();			/* forget partial records */
void mirror_q_decode_all();			/* apply what has arrived */
void mirror_q_stop_resync();
void mirror_q_rx_record(const mirror::wire::record_def &def,
    std::span<const uint8_t> data);
void mirror_q_rx_ack(const mirror::wire::record_def &def);
void mirror_q_rx_resync_req(uint16_t data_id);
void mirror_q_registered(mirror_reg_entry *entry);	/* resync decision */

/* The peer broke the stream: trace, report, event, and close. */
void mirror_stream_error(const char *func, int line, const char *what);

#endif
