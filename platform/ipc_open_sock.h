/*
 * The device's inter-process library call that opens a daemon's own request socket. It knows
 * nothing of messages: it makes, guards and sizes the socket.
 */
#ifndef PELKIN_PLATFORM_IPC_OPEN_SOCK_H
#define PELKIN_PLATFORM_IPC_OPEN_SOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds after which a send to a peer that does not read fails instead of holding the sender. */
#define IPC_SEND_TIMEOUT_S 2

/*
 * Bytes of kernel memory that datagrams sent from the socket and not read yet may take: a thousand
 * of the largest answers. The kernel keeps this account in 32 bits and wraps it when it is given
 * more room than a few of these.
 */
#define IPC_UNREAD_MAX (64 * 1024 * 1024)

/*
 * Creates a Unix-domain datagram socket bound to `path` (at most 107 characters), with mode 0660, a
 * send time-out of IPC_SEND_TIMEOUT_S and a send buffer of IPC_UNREAD_MAX bytes, or as many as the
 * system allows. Returns its
 * descriptor (close-on-exec, below FD_SETSIZE, so that select() can watch it), which the caller
 * closes, or -1 with errno set.
 *
 * A socket file that nobody serves is replaced. EADDRINUSE: a live process serves `path`, or `path`
 * is something other than a socket (which is left alone). ENAMETOOLONG: the path does not fit.
 * EMFILE: the descriptor would not fit a select() set.
 *
 * Sets the process's umask for the moment of the bind, so call it from the only thread that makes
 * files (start-up).
 */
int32_t ipc_open_sock(const char *path);

#ifdef __cplusplus
}
#endif
#endif
