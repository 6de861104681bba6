#include "http/exchange.h"

#include <errno.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/answer_framing.h"
#include "http/connection.h"
#include "http/request.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/poll_one.h"
#include "platform/retry_pause.h"

static const size_t ERROR_TEXT_SIZE = 256; // what ERR_error_string() asks for

// The operations that log lines of a receive name.
static const char plain_receiver[] = "pelkin_recv_http_rsp";
static const char tls_receiver[] = "pelkin_recv_https_rsp";

enum read_event {
    READ_GOT_BYTES,
    READ_WAIT_READABLE,
    READ_WAIT_WRITABLE,
    READ_ENDED, // closed or broken, logged
};

// Reads at most `room` bytes; `received` is what earlier reads of this answer brought.
typedef enum read_event (*answer_reader)(int32_t sock, SSL *tls, char *to, int32_t room,
                                         int32_t received, int32_t *got);

// An answer as far as it has arrived.
struct answer {
    char *buffer; // of `size` bytes, NUL-terminated behind `length`
    int32_t size;
    int32_t length;
    int32_t head_length;  // 0 while the blank line is not there
    int64_t end;          // announced length, head included; -1 while there is no usable one
    const char *receiver; // operation whose steps these are
};

static enum read_event read_plain(int32_t sock, SSL *, char *to, int32_t room, int32_t received,
                                  int32_t *got)
{
    errno = 0;
    *got = (int32_t)recv(sock, to, (size_t)room, 0);
    if (*got > 0) {
        return READ_GOT_BYTES;
    }
    if (*got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return READ_WAIT_READABLE;
    }
    if (*got == 0 && received > 0) {
        PELKIN_LOG_AS(plain_receiver, ERROR, "socket closed.");
        return READ_ENDED;
    }
    PELKIN_LOG_AS(plain_receiver, ERROR, "Socket Read error:%d, errmsg:%s", errno,
                  error_text(errno));
    return READ_ENDED;
}

static enum read_event read_tls(int32_t, SSL *tls, char *to, int32_t room, int32_t, int32_t *got)
{
    ERR_clear_error();
    *got = SSL_read(tls, to, room);
    const int error = SSL_get_error(tls, *got);
    switch (error) {
    case SSL_ERROR_NONE:
        PELKIN_LOG_AS(tls_receiver, DEBUG, "SSL read success. rc=%d", *got);
        return READ_GOT_BYTES;
    case SSL_ERROR_WANT_READ:
        PELKIN_LOG_AS(tls_receiver, ERROR,
                      "SSL read error(SSL_ERROR_WANT_READ) err_code=%d, retrying read", error);
        return READ_WAIT_READABLE;
    case SSL_ERROR_WANT_WRITE:
        PELKIN_LOG_AS(
            tls_receiver, ERROR,
            "SSL read error(SSL_ERROR_WANT_WRITE) err_code=%d, retrying read after writable event",
            error);
        return READ_WAIT_WRITABLE;
    case SSL_ERROR_ZERO_RETURN:
        PELKIN_LOG_AS(tls_receiver, ERROR, "socket closed.");
        return READ_ENDED;
    default:
        break;
    }
    char text[ERROR_TEXT_SIZE];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    PELKIN_LOG_AS(tls_receiver, ERROR, "SSL read err_code:%d, n=%d, error:%s", error, *got, text);
    return READ_ENDED;
}

// Whether the blank line may have come with the bytes behind the first `known` ones. Only they and
// the three before them are looked at: an answer that drips in is not searched from its start every
// time.
static bool has_blank_line_behind(const struct answer *answer, int32_t known)
{
    return strstr(answer->buffer + (known > 3 ? known - 3 : 0), "\r\n\r\n") != nullptr;
}

// Takes `got` new bytes into account. True when the answer is whole or the buffer full.
static bool accept_bytes(struct answer *answer, int32_t got)
{
    const int32_t capacity = answer->size - 1;
    const int32_t before = answer->length;
    answer->length += got;
    answer->buffer[answer->length] = '\0';
    if (answer->head_length < 1 && has_blank_line_behind(answer, before)) {
        answer->head_length = pelkin_get_http_head_len(answer->buffer);
        if (answer->head_length > 0) {
            const int32_t body_length = pelkin_get_http_data_len(answer->buffer);
            answer->end = body_length < 0 ? -1 : (int64_t)answer->head_length + body_length;
        }
    }
    if (answer->end < 0) {
        return answer->length == capacity;
    }
    if (answer->length < answer->end && answer->length < capacity) {
        return false;
    }
    PELKIN_LOG_SUPERSEDED_AS(answer->receiver,
                             "%s. (rcveive len[%d], max len[%d], packet len[%lld])",
                             answer->length < capacity ? "read completed" : "There is no buf space",
                             answer->length, answer->size, (long long)answer->end);
    return true;
}

// True when the answer ended exactly where it said it would: only then may the connection carry
// another request. Bytes behind that end belong to no request of ours and are cut off.
static bool is_cleanly_ended(struct answer *answer)
{
    if (answer->end < 0 || answer->length < answer->end) {
        return false;
    }
    if (answer->length == answer->end) {
        return true;
    }
    answer->length = (int32_t)answer->end;
    answer->buffer[answer->length] = '\0';
    return false;
}

static void receive_bytes(int32_t sock, SSL *tls, answer_reader read_some, struct answer *answer)
{
    int16_t mode = PELKIN_WAIT_READABLE;
    uint32_t without_bytes = 0;
    bool must_wait = tls == nullptr || SSL_has_pending(tls) == 0;
    for (;;) {
        if (must_wait && pelkin_wait_socket(sock, PELKIN_HTTP_WAIT_S, 0, mode) <= 0) {
            if (answer->length == 0) {
                PELKIN_LOG_AS(answer->receiver, ERROR, "Socket I/O Read Timeout");
            }
            return;
        }
        int32_t got = 0;
        const enum read_event event =
            read_some(sock, tls, answer->buffer + answer->length, answer->size - 1 - answer->length,
                      answer->length, &got);
        if (event == READ_ENDED || (event == READ_GOT_BYTES && accept_bytes(answer, got))) {
            return;
        }
        if (event == READ_GOT_BYTES) {
            without_bytes = 0;
        } else {
            retry_pause(&without_bytes);
        }
        mode = event == READ_WAIT_WRITABLE ? PELKIN_WAIT_WRITABLE : PELKIN_WAIT_READABLE;
        // Records that the library has taken off the socket already make it readable no more.
        must_wait = event != READ_GOT_BYTES || tls == nullptr || SSL_has_pending(tls) == 0;
    }
}

static int32_t receive_answer(int32_t sock, SSL *tls, answer_reader read_some, char *buffer,
                              int32_t size, int32_t *length)
{
    buffer[0] = '\0';
    struct answer answer = {.buffer = buffer,
                            .size = size,
                            .length = 0,
                            .head_length = 0,
                            .end = -1,
                            .receiver = tls != nullptr ? tls_receiver : plain_receiver};
    receive_bytes(sock, tls, read_some, &answer);
    if (!is_cleanly_ended(&answer)) {
        shutdown(sock, SHUT_RDWR);
    }
    *length = answer.length;
    return answer.length > 0 ? 0 : -1;
}

int32_t pelkin_recv_http_rsp(int32_t sock, char *buffer, int32_t size, int32_t *length,
                             const struct http_task *)
{
    return receive_answer(sock, nullptr, read_plain, buffer, size, length);
}

int32_t pelkin_recv_https_rsp(const int32_t *sock, SSL *tls, char *buffer, int32_t size,
                              int32_t *length, const struct http_task *)
{
    return receive_answer(*sock, tls, read_tls, buffer, size, length);
}

int32_t pelkin_send_http_req(int32_t sock, const char *request, int32_t length,
                             const struct http_task *)
{
    // One look for both: room to write, and bytes (or an end) that must not be there yet.
    struct pollfd watched = {.fd = sock, .events = POLLIN | POLLOUT, .revents = 0};
    if (poll_one(&watched, PELKIN_HTTP_WAIT_S, 0) <= 0) {
        PELKIN_LOG_ERROR("Socket I/O Write Timeout");
        return -1;
    }
    if ((watched.revents & ~POLLOUT) != 0) {
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        return -1;
    }
    if (send(sock, request, (size_t)length, 0) <= 0) {
        PELKIN_LOG_ERROR("Socket Write error:%d, errmsg:%s", errno, error_text(errno));
        return -1;
    }
    return 0;
}

// A readable TLS socket may hold session tickets and no answer, so only the library can tell
// whether something waits that belongs to no request.
static bool is_tls_quiet(SSL *tls)
{
    char byte = 0;
    ERR_clear_error();
    const int rc = SSL_peek(tls, &byte, sizeof byte);
    return SSL_get_error(tls, rc) == SSL_ERROR_WANT_READ;
}

int32_t pelkin_send_https_req(SSL *tls, const char *request, int32_t length,
                              const struct http_task *)
{
    if (!is_tls_quiet(tls)) {
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        return -1;
    }
    ERR_clear_error();
    const int rc = SSL_write(tls, request, length);
    const int error = SSL_get_error(tls, rc);
    switch (error) {
    case SSL_ERROR_NONE:
        PELKIN_LOG_DEBUG("SSL write success");
        return 0;
    case SSL_ERROR_WANT_WRITE:
        PELKIN_LOG_ERROR("SSL write error(SSL_ERROR_WANT_WRITE) err_code=%d, retrying write",
                         error);
        return rc;
    case SSL_ERROR_ZERO_RETURN:
        PELKIN_LOG_ERROR("socket closed, need to reconnect.");
        return rc;
    default:
        break;
    }
    char text[ERROR_TEXT_SIZE];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    PELKIN_LOG_ERROR("SSL write err_code:%d, n=%d, error:%s", error, rc, text);
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

int32_t _pelkin_send_recv(int32_t *sock, SSL *tls, const struct http_task *task, char *response,
                          int32_t size, int32_t *length)
{
    if (*sock < 0 || task == nullptr || response == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    char request[PELKIN_HTTP_REQ_MAX];
    int32_t request_length = 0;
    pelkin_build_http_req(task, request, sizeof request, &request_length);
    PELKIN_LOG_DEBUG("Send http request:[len=%d] %s", request_length, request);

    const struct exchange exchange = {.task = task,
                                      .request = request,
                                      .request_length = request_length,
                                      .response = response,
                                      .size = size,
                                      .length = length};
    for (int32_t round = 1; attempt(sock, tls, &exchange) != 0; round++) {
        if (round > PELKIN_HTTP_RETRIES) {
            return -1;
        }
        PELKIN_LOG_DEBUG("to retry, round %d", round);
        close(*sock);
        if (pelkin_open_connection(__func__, sock, tls, task->host, task->is_https) != 0) {
            return -1;
        }
    }
    return cut_head(response, length);
}
