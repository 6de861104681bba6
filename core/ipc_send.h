/*
 * The daemon's request socket as its threads send on it: build an envelope, send a message to a
 * peer's named socket, close for good.
 */
#ifndef PELKIN_CORE_IPC_SEND_H
#define PELKIN_CORE_IPC_SEND_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The request socket. Set by start-up before any other thread exists and closed by shutdown; only
 * the main thread receives on it, every thread may send on it. -1 while not open.
 */
extern int32_t pelkin_sock;

/*
 * Closes the request socket for good, once the sends that other threads have under way have ended
 * (2 seconds at most, the socket's send time-out); later ones fail. Main thread, at shutdown.
 */
void pelkin_close_sock(void);

/*
 * Writes an envelope with this daemon as the sender and `len` bytes of payload to come; returns
 * where the payload goes, buffer + 12. Any thread.
 */
void *pelkin_fill_ipc_hdr(void *buffer, uint32_t msg_id, uint32_t len);

/*
 * Sends an enveloped message (12 + its `len` bytes) from the request socket to the socket named
 * `peer_path`, at most 106 characters. 0, or -1 after the message "failed to send ipc msg."; there
 * is no retry. A peer that does not read holds the caller for at most 2 seconds. Any thread.
 */
int32_t pelkin_send_ipc_msg(const char *peer_path, const void *message);

/*
 * The length with which an address that was received can be sent to. The system reports a path of
 * 108 characters, for which the address has no NUL, one byte longer than the address is, and then
 * refuses that length (unix(7), BUGS). Any thread.
 */
socklen_t pelkin_sendable_length(socklen_t reported);

/*
 * Sends one datagram of `length` bytes from `sock` to `address`. 0, or -1 after the message
 * "failed to send ipc msg.". Any thread.
 */
int32_t pelkin_send_to_socket(int32_t sock, const void *buffer, size_t length, const void *address,
                              socklen_t address_length);

/*
 * Sends an answer of `length` bytes from the request socket to the requester at `address`. Answers
 * that requesters leave unread are the sender's memory: when they fill half of what the socket may
 * hold, no further one is sent, so that other messages keep room. None is sent through a symbolic
 * link, with which a requester could have the daemon write to a socket that it may not write to
 * itself. 0, or -1 after the message "failed to send ipc msg.". Any thread.
 */
int32_t pelkin_send_answer(const void *buffer, size_t length, const struct sockaddr_un *address,
                           socklen_t address_length);

#ifdef __cplusplus
}
#endif
#endif
