#include "wechat/api_request.h"

#include <string.h>
#include <unistd.h>

#include "http/connection.h"
#include "http/exchange.h"
#include "log/log.h"

static const char API_HOST[] = PELKIN_WECHAT_API_HOST;
static_assert(sizeof API_HOST > 1 && sizeof API_HOST <= HTTP_TASK_HOST_SIZE,
              "PELKIN_WECHAT_API_HOST has 1 to 127 characters");

static SSL_CTX *context; // null: the daemon's own

void wechat_use_context(SSL_CTX *tls_context)
{
    if (tls_context != nullptr) {
        SSL_CTX_up_ref(tls_context);
    }
    SSL_CTX_free(context);
    context = tls_context;
}

void wechat_prepare_task(struct http_task *task, uint32_t http_req_type)
{
    // The data is read as text: what an earlier request left behind its new end is never seen.
    memset(task, 0, HTTP_TASK_FIXED_SIZE);
    task->data[0] = '\0';
    task->is_https = 1;
    task->http_req_type = http_req_type;
    memcpy(task->host, API_HOST, sizeof API_HOST);
}

static int32_t connect_and_exchange(int32_t *sock, SSL *tls, const struct http_task *task,
                                    char *buf, int32_t buf_size, int32_t *out_len)
{
    if (pelkin_open_connection("wechat_send_recv", sock, tls, task->host, task->is_https) != 0) {
        return -1;
    }
    memset(buf, 0, (size_t)buf_size);
    *out_len = 0;
    const int32_t exchanged = _pelkin_send_recv(sock, tls, task, buf, buf_size, out_len);
    if (exchanged != 0) {
        PELKIN_LOG_AS("wechat_send_recv", ERROR, "Send/Recv http(s) failed.");
        return exchanged;
    }
    PELKIN_LOG_AS("wechat_send_recv", DEBUG, "rcv: len:%d, buf:%s", *out_len, buf);
    return 0;
}

int32_t wechat_send_recv(const struct http_task *task, char *buf, int32_t buf_size,
                         int32_t *out_len)
{
    SSL *tls = nullptr;
    if (task->is_https != 0) {
        tls = pelkin_create_ssl(context != nullptr ? context : pelkin_ctx);
        if (tls == nullptr) {
            PELKIN_LOG_ERROR("create ssl fail.");
            return -1;
        }
    }
    int32_t sock = -1;
    const int32_t rc = connect_and_exchange(&sock, tls, task, buf, buf_size, out_len);
    if (sock >= 0) {
        close(sock);
    }
    SSL_free(tls);
    return rc;
}
