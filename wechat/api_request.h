/*
 * One request to the WeChat API server: a task for it, and its exchange over a connection of its
 * own. Follow-check thread.
 */
#ifndef PELKIN_WECHAT_API_REQUEST_H
#define PELKIN_WECHAT_API_REQUEST_H

#include <openssl/ssl.h>
#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Makes `task` a request of `http_req_type` to the API server over HTTPS: `path` and body are
 * empty, everything else is as in a zeroed task.
 */
void wechat_prepare_task(struct http_task *task, uint32_t http_req_type);

/*
 * Makes `tls_context` the one of all requests in place of `pelkin_ctx` and takes a reference to it,
 * which only another call gives back: the thread outlives the shutdown, which gives the daemon's
 * own up and clears its pointer. With null, requests use `pelkin_ctx` again. Before the thread
 * starts.
 */
void wechat_use_context(SSL_CTX *tls_context);

/*
 * Carries out the task over a new connection and closes it. 0: `buf` (of `buf_size` bytes) holds
 * the answer's body, NUL-terminated, and `*out_len` its length. Otherwise -1 (logged): neither
 * holds an answer that counts. It may take minutes when the server is slow.
 */
int32_t wechat_send_recv(const struct http_task *task, char *buf, int32_t buf_size,
                         int32_t *out_len);

#ifdef __cplusplus
}
#endif
#endif
