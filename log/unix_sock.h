/*
 * Unix-domain datagram sockets for daemons and their clients: open under a name, ask and wait for a
 * reply, close. They stand below the log channel and therefore log nothing. A handle is used by one
 * thread at a time.
 */
#ifndef PELKIN_LOG_UNIX_SOCK_H
#define PELKIN_LOG_UNIX_SOCK_H

#include <stddef.h>
#include <stdint.h>
#include <sys/un.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds that unix_sock_request() waits for a reply. */
#define UNIX_SOCK_REPLY_TIMEOUT_S 2

/* A handle, owned by the caller. */
struct unix_sock {
    int32_t fd;               /* -1 after a failed open */
    struct sockaddr_un local; /* the bound name; family AF_UNIX when bound, else all zero */
    struct sockaddr_un peer;  /* a client's daemon; all zero for a daemon */
};

/*
 * Opens a socket bound to the absolute form of `path` (cut at 107 characters), replacing any file
 * of that name. Returns the descriptor, close-on-exec, or -1; then no file is left behind.
 */
int32_t unix_sock_open_daemon(const char *path, struct unix_sock *sock);

/*
 * Opens a socket connected to the daemon at `path` (cut at 107 characters). With `temp_name`
 * non-zero it is first bound to a fresh name "/tmp/uds-PID-RANDOM", so that the daemon can answer,
 * and an absent daemon is a failure; without, an absent daemon is none, and sends fail until the
 * handle is opened or connected again. Returns the descriptor, close-on-exec, or -1.
 */
int32_t unix_sock_open_client(const char *path, struct unix_sock *sock, int32_t temp_name);

/*
 * Connects a client's socket once more, to whoever serves its daemon's path now. 0, or -1 when
 * nobody does. Never waits; several threads may do so at once.
 */
int32_t unix_sock_reconnect(const struct unix_sock *sock);

/* The opener behind both; `daemon` and `temp_name` are flags and exclude each other. */
int32_t unix_sock_open(const char *path, struct unix_sock *sock, int32_t daemon, int32_t temp_name);

/* Removes the bound name, if any, and closes the descriptor. Once a handle. */
void unix_sock_close(const struct unix_sock *sock);

int32_t unix_sock_get_fd(const struct unix_sock *sock);

/*
 * 1 when a read would return at once, with a datagram or the socket's pending error; 0 when not or
 * when the test itself fails. Never blocks.
 */
int32_t unix_sock_pending(const struct unix_sock *sock);

/*
 * Sends one datagram and waits for one reply. `*reply_length` holds the size of `reply` and
 * receives the length of the reply, which is cut to that size. Returns 0; -1 when the send failed;
 * the receive call's negative result; -2 when no reply came within UNIX_SOCK_REPLY_TIMEOUT_S or the
 * wait failed. A late reply stays queued and is taken for the reply to the next request.
 */
int32_t unix_sock_request(const struct unix_sock *sock, const void *request, size_t request_length,
                          void *reply, size_t *reply_length);

#ifdef __cplusplus
}
#endif
#endif
