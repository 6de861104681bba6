/*
 * The intake: every datagram of the request socket is compared with its envelope, dispatched by
 * message id and, when it asks for an HTTP request, turned into a task and handed to the worker of
 * its server. A request that fails here is dropped with a log message; requesters are never told.
 * Main thread.
 */
#ifndef PELKIN_CORE_DAEMON_INTAKE_H
#define PELKIN_CORE_DAEMON_INTAKE_H

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "core/http_task.h"
#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Takes one datagram of `received_length` bytes. `message` is a receive buffer of PELKIN_MSG_MAX
 * bytes, aligned to 4, zero behind what was received; a request's `len` that promises more data
 * than came is cut in it. 0 when the datagram was dispatched, -1 when its size was wrong.
 */
int32_t pelkin_rcv_ipc_msg(void *message, int32_t received_length,
                           const struct sockaddr_un *sender_address,
                           socklen_t sender_address_length);

/*
 * Takes one HTTP request, envelope included. 0 when it was dropped by the switch or reached the
 * hand-over (which may have failed), -1 when it failed before.
 */
int32_t social_media_req_msg_proc(void *message, const struct sockaddr_un *sender_address,
                                  socklen_t sender_address_length);

/*
 * Fills a zeroed task from the request, whose `len` bytes of data stand behind it. 0, or -1 when an
 * argument is missing or the URL has no host or one of more than 127 characters.
 */
int32_t pelkin_fill_http_task(uint32_t msg_id, struct http_task *task,
                              const struct http_req_msg *request,
                              const struct sockaddr_un *sender_address,
                              socklen_t sender_address_length);

/* Logs the request at debug level; a null one logs nothing. */
void pelkin_print_http_req_msg(const struct http_req_msg *request);

#ifdef __cplusplus
}
#endif
#endif
