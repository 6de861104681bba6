/*
 * One HTTP request and its answer over an open connection: send, read the answer to its announced
 * end, reconnect and repeat up to three times when that fails, cut the head off. Plain and TLS
 * differ in how bytes are read and written; where an answer ends is decided in one place for both.
 *
 * An answer ends at its announced length, at the end of the buffer, when the server closes, or
 * after 10 seconds of silence. A connection on which it ended anywhere but at its announced length
 * is shut down, so that nothing of it can be taken for the next answer; the next exchange finds the
 * socket ended and makes the usual reconnection. The same goes for bytes that wait before a request
 * is sent.
 *
 * Any thread, each with buffers, socket and TLS object of its own.
 */
#ifndef PELKIN_HTTP_EXCHANGE_H
#define PELKIN_HTTP_EXCHANGE_H

#include <openssl/ssl.h>
#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds of every wait: to write a plain request, and for the next bytes of an answer. */
#define PELKIN_HTTP_WAIT_S 10
/* Repetitions, each over a new connection, after a first attempt that failed. */
#define PELKIN_HTTP_RETRIES 3

/*
 * Carries out the task's exchange over `*sock` (and `tls`, null for plain). 0: `response` (of
 * `size` bytes, NUL-terminated) holds the answer's body, or the whole answer when it has no body,
 * and
 * `*length` its length. -1 (logged): no answer. A reconnection replaces `*sock`, which stays the
 * caller's to close (-1 when none could be made), and repeats the handshake on `tls`. Needs about
 * 64 KiB of stack, touched as far as the request is long.
 */
int32_t _pelkin_send_recv(int32_t *sock, SSL *tls, const struct http_task *task, char *response,
                          int32_t size, int32_t *length);

/* Writes a plain request. 0, or -1 when the connection carries no further request (logged). */
int32_t pelkin_send_http_req(int32_t sock, const char *request, int32_t length,
                             const struct http_task *task);

/* Reads a plain answer, head and body. 0 when something was read, else -1 (logged). */
int32_t pelkin_recv_http_rsp(int32_t sock, char *buffer, int32_t size, int32_t *length,
                             const struct http_task *task);

/*
 * Writes a request over TLS. 0 when written; otherwise the result of SSL_write(), or -1 when the
 * connection carries no further request (logged).
 */
int32_t pelkin_send_https_req(SSL *tls, const char *request, int32_t length,
                              const struct http_task *task);

/* As pelkin_recv_http_rsp(), over TLS. */
int32_t pelkin_recv_https_rsp(const int32_t *sock, SSL *tls, char *buffer, int32_t size,
                              int32_t *length, const struct http_task *task);

#ifdef __cplusplus
}
#endif
#endif
