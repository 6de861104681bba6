/*
 * Outgoing connections: TCP sockets, connecting to a host by name or dotted address, with TLS if
 * asked for (http/tls.h), and the bounded wait for a socket. Sending requests is not done here
 * (http/exchange.h). Connections of different threads are independent of each other.
 */
#ifndef PELKIN_HTTP_CONNECTION_H
#define PELKIN_HTTP_CONNECTION_H

#include <stdint.h>

#include "http/tls.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Modes of pelkin_wait_socket(). */
#define PELKIN_WAIT_READABLE 0
#define PELKIN_WAIT_WRITABLE 1
#define PELKIN_WAIT_EXCEPTION 2

/*
 * Makes the C library set up its name services (nsswitch.conf(5)) now. Left to the first lookup, a
 * lack of memory there would end the process: glibc 2.36 uses what it could not allocate. Main
 * thread, before the first request.
 */
void pelkin_prepare_lookups(void);

/* A new blocking IPv4 stream socket (close-on-exec), which the caller closes, or -1. */
int32_t pelkin_create_tcp_socket(void);

/*
 * Connects `sock` to `host` (a name, or else a dotted address) and `port` (host byte order). With a
 * TLS object, runs a complete new handshake on it, whatever the object was connected to before.
 * Both block for as long as the system and the server take. On success the socket is non-blocking.
 * Returns 0, or -1 (logged); the socket then stays open and is the caller's to close.
 */
int32_t pelkin_connect_tcp_socket(int32_t sock, SSL *tls, const char *host, uint16_t port);

/*
 * The two steps above for the operation of that name, which log lines of a failure carry: makes
 * `*sock` a new socket that is connected to `host`, on the port of the scheme, with `tls` (null for
 * plain). 0, or -1 (logged); `*sock` is the caller's to close either way, and -1 when none was
 * made.
 */
int32_t pelkin_open_connection(const char *operation, int32_t *sock, SSL *tls, const char *host,
                               uint32_t is_https);

/*
 * Waits until `sock` is ready in the way of `mode`, at most the given time; a wait that a signal
 * interrupts starts over. Above 0 when ready, 0 at the time-out, below 0 on an error (errno,
 * logged). A descriptor of any number will do.
 */
int32_t pelkin_wait_socket(int32_t sock, int32_t seconds, int32_t microseconds, int16_t mode);

#ifdef __cplusplus
}
#endif
#endif
