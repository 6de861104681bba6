#include "http/exchange.h"

#include <errno.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/connection.h"
#include "http/request.h"
#include "http/tls.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/poll_one.h"

// Enough for a task whose text is no longer than a URL's field (1024 bytes), which is most of them.
static const size_t SMALL_REQUEST_SIZE = 2560;

int32_t pelkin_send_http_req(int32_t sock, const char *request, int32_t length,
                             const struct http_task *)
{
    // One look for both: room to write, and bytes (or an end) that must not be there yet.
    struct pollfd watched = {.fd = sock, .events = POLLIN | POLLOUT, .revents = 0};
    const int32_t ready = poll_one(&watched, PELKIN_HTTP_WAIT_S, 0);
    if (ready < 0) {
        PELKIN_LOG_ERROR("wait for socket fail. errno=%d, errmsg:%s", errno, error_text(errno));
    }
    if (ready <= 0) {
        PELKIN_LOG_ERROR("Socket I/O Write Timeout");
        return -1;
    }
    if ((watched.revents & ~POLLOUT) != 0) {
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        return -1;
    }
    const ssize_t sent = send(sock, request, (size_t)length, 0);
    if (sent <= 0) {
        PELKIN_LOG_ERROR("Socket Write error:%d, errmsg:%s", errno, error_text(errno));
        return -1;
    }
    if (sent < length) {
        // The next request's beginning would be read as the rest of this one.
        shutdown(sock, SHUT_WR);
    }
    return 0;
}

// Whether nothing waits that belongs to no request. Only the library can tell what a readable
// socket holds: session tickets, say, are no answer.
static bool is_tls_quiet(SSL *tls)
{
    char byte = 0;
    if (SSL_has_pending(tls) == 0 &&
        recv(SSL_get_fd(tls), &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN) {
        return true;
    }
    const int rc = SSL_peek(tls, &byte, sizeof byte);
    return SSL_get_error(tls, rc) == SSL_ERROR_WANT_READ && SSL_has_pending(tls) == 0;
}

static void report_broken_tls(int error, int rc)
{
    char text[PELKIN_TLS_ERROR_TEXT_SIZE];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    PELKIN_LOG_AS("pelkin_send_https_req", ERROR, "SSL write err_code:%d, n=%d, error:%s", error,
                  rc, text);
}

int32_t pelkin_send_https_req(SSL *tls, const char *request, int32_t length,
                              const struct http_task *)
{
    if (!is_tls_quiet(pelkin_use_tls(tls))) {
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        return -1;
    }
    SSL *live = pelkin_use_tls(tls);
    const int rc = SSL_write(live, request, length);
    const int error = SSL_get_error(live, rc);
    switch (error) {
    case SSL_ERROR_NONE:
        PELKIN_LOG_DEBUG("SSL write success");
        return 0;
    case SSL_ERROR_WANT_WRITE:
        PELKIN_LOG_ERROR("SSL write error(SSL_ERROR_WANT_WRITE) err_code=%d, retrying write",
                         error);
        break;
    case SSL_ERROR_ZERO_RETURN:
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        break;
    default:
        report_broken_tls(error, rc);
        break;
    }
    return rc;
}

// What an attempt needs: the request's text, and room for its answer.
struct exchange {
    const struct http_task *task;
    const char *request;
    int32_t request_length;
    char *response; // of `size` bytes
    int32_t size;
    int32_t *length; // of the answer
};

static int32_t attempt_plain(int32_t sock, const struct exchange *exchange)
{
    if (pelkin_send_http_req(sock, exchange->request, exchange->request_length, exchange->task) <
        0) {
        PELKIN_LOG_AS("_pelkin_send_recv", ERROR, "send http request fail.");
        return -1;
    }
    if (pelkin_recv_http_rsp(sock, exchange->response, exchange->size, exchange->length,
                             exchange->task) < 0) {
        PELKIN_LOG_AS("_pelkin_send_recv", ERROR, "receive http response fail.");
        return -1;
    }
    return 0;
}

static int32_t attempt_tls(const int32_t *sock, SSL *tls, const struct exchange *exchange)
{
    if (pelkin_send_https_req(tls, exchange->request, exchange->request_length, exchange->task) <
        0) {
        PELKIN_LOG_AS("_pelkin_send_recv", ERROR, "send https request fail.");
        return -1;
    }
    if (pelkin_recv_https_rsp(sock, tls, exchange->response, exchange->size, exchange->length,
                              exchange->task) < 0) {
        PELKIN_LOG_AS("_pelkin_send_recv", ERROR, "receive https response fail.");
        return -1;
    }
    return 0;
}

static int32_t attempt(const int32_t *sock, SSL *tls, const struct exchange *exchange)
{
    return exchange->task->is_https != 0 ? attempt_tls(sock, tls, exchange)
                                         : attempt_plain(*sock, exchange);
}

// Leaves the body at the start of the buffer; an answer without one stays as it is, head included.
static int32_t cut_head(char *response, int32_t *length)
{
    static const char blank_line[] = "\r\n\r\n";
    PELKIN_LOG_SUPERSEDED_AS("_pelkin_send_recv", "Recv http response: [len=%d] %s", *length,
                             response);
    const char *found = strstr(response, blank_line);
    if (found == nullptr) {
        *length = 0;
        PELKIN_LOG_AS("_pelkin_send_recv", ERROR, "can't find 2 CRLF in the response.");
        return -1;
    }
    const char *body = found + sizeof blank_line - 1;
    if (*body != '\0') {
        *length -= (int32_t)(body - response);
        memmove(response, body, (size_t)*length + 1);
    }
    return 0;
}

static int32_t carry_out(int32_t *sock, SSL *tls, const struct exchange *exchange)
{
    static const char operation[] = "_pelkin_send_recv";
    const struct http_task *task = exchange->task;
    PELKIN_LOG_AS(operation, DEBUG, "Send http request:[len=%d] %s", exchange->request_length,
                  exchange->request);
    for (int32_t round = 1; attempt(sock, tls, exchange) != 0; round++) {
        if (round > PELKIN_HTTP_RETRIES) {
            return -1;
        }
        PELKIN_LOG_AS(operation, DEBUG, "to retry, round %d", round);
        close(*sock);
        if (pelkin_open_connection(operation, sock, tls, task->host, task->is_https) != 0) {
            return -1;
        }
    }
    if (pelkin_is_one_http_req(task) == 0) {
        // A server that saw two requests in it may answer the second one when it likes.
        shutdown(*sock, SHUT_RDWR);
    }
    return cut_head(exchange->response, exchange->length);
}

// Apart, so that only a large request takes the stack of one.
__attribute__((noinline)) static int32_t carry_out_large(int32_t *sock, SSL *tls,
                                                         struct exchange *exchange)
{
    char request[PELKIN_HTTP_REQ_MAX];
    exchange->request = request;
    pelkin_build_http_req(exchange->task, request, sizeof request, &exchange->request_length);
    return carry_out(sock, tls, exchange);
}

int32_t _pelkin_send_recv(int32_t *sock, SSL *tls, const struct http_task *task, char *response,
                          int32_t size, int32_t *length)
{
    if (*sock < 0 || task == nullptr || response == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    char request[SMALL_REQUEST_SIZE];
    struct exchange exchange = {.task = task,
                                .request = request,
                                .request_length = 0,
                                .response = response,
                                .size = size,
                                .length = length};
    pelkin_build_http_req(task, request, sizeof request, &exchange.request_length);
    return exchange.request_length < (int32_t)sizeof request
               ? carry_out(sock, tls, &exchange)
               : carry_out_large(sock, tls, &exchange);
}
