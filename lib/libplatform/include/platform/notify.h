/*
 * Readiness for the service manager: a datagram to $NOTIFY_SOCKET, as
 * systemd's sd_notify() sends it.  Without that variable it does nothing.
 */
#ifndef PLATFORM_NOTIFY_H
#define PLATFORM_NOTIFY_H

#ifdef __cplusplus
extern "C" {
#endif

/* state: "READY=1", "STOPPING=1", "STATUS=..."; 0 sent, -1 not. */
int platform_notify(const char *state);

#ifdef __cplusplus
}
#endif

#endif
