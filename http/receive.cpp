// Reading an answer, plain or over TLS: the two differ in how bytes are read; where an answer ends
// is decided here for both.
#include "http/exchange.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "http/answer_framing.h"
#include "http/connection.h"
#include "http/tls.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/retry_pause.h"

static const int64_t US_PER_S = 1000000;

// An answer as far as it has arrived.
struct answer {
    char *buffer; // of `size` bytes, NUL-terminated behind `length`
    int32_t size;
    int32_t length;
    int32_t head_length; // 0 while the blank line is not there
    int64_t end;         // announced length, head included; -1 while there is no usable one
    int64_t deadline_us; // until when its next byte is awaited
};

enum read_event {
    READ_GOT_BYTES,
    READ_WAIT_READABLE,
    READ_WAIT_WRITABLE,
    READ_ENDED, // closed or broken, logged
};

struct source {
    const char *operation; // that receives, for log lines
    // Reads more of the answer, and stores how much.
    enum read_event (*read_some)(const struct source *source, const struct answer *answer,
                                 int32_t *got);
    int32_t sock;
    SSL *tls; // the one in use; null for plain
};

static enum read_event read_plain(const struct source *source, const struct answer *answer,
                                  int32_t *got)
{
    errno = 0;
    *got = (int32_t)recv(source->sock, answer->buffer + answer->length,
                         (size_t)(answer->size - 1 - answer->length), 0);
    if (*got > 0) {
        return READ_GOT_BYTES;
    }
    if (*got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return READ_WAIT_READABLE;
    }
    if (*got == 0 && answer->length > 0) {
        PELKIN_LOG_AS(source->operation, ERROR, "socket closed.");
        return READ_ENDED;
    }
    PELKIN_LOG_AS(source->operation, ERROR, "Socket Read error:%d, errmsg:%s", errno,
                  error_text(errno));
    return READ_ENDED;
}

static enum read_event report_broken_tls(const struct source *source, int error, int32_t got)
{
    char text[PELKIN_TLS_ERROR_TEXT_SIZE];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    PELKIN_LOG_AS(source->operation, ERROR, "SSL read err_code:%d, n=%d, error:%s", error, got,
                  text);
    return READ_ENDED;
}

static enum read_event read_tls(const struct source *source, const struct answer *answer,
                                int32_t *got)
{
    SSL *tls = pelkin_use_tls(source->tls);
    *got = SSL_read(tls, answer->buffer + answer->length, answer->size - 1 - answer->length);
    const int error = SSL_get_error(tls, *got);
    switch (error) {
    case SSL_ERROR_NONE:
        PELKIN_LOG_AS(source->operation, DEBUG, "SSL read success. rc=%d", *got);
        return READ_GOT_BYTES;
    case SSL_ERROR_WANT_READ:
        PELKIN_LOG_AS(source->operation, ERROR,
                      "SSL read error(SSL_ERROR_WANT_READ) err_code=%d, retrying read", error);
        return READ_WAIT_READABLE;
    case SSL_ERROR_WANT_WRITE:
        PELKIN_LOG_AS(
            source->operation, ERROR,
            "SSL read error(SSL_ERROR_WANT_WRITE) err_code=%d, retrying read after writable event",
            error);
        return READ_WAIT_WRITABLE;
    case SSL_ERROR_ZERO_RETURN:
        PELKIN_LOG_AS(source->operation, ERROR, "socket closed.");
        return READ_ENDED;
    default:
        return report_broken_tls(source, error, *got);
    }
}

// Of a clock that nobody sets.
static int64_t now_us(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * US_PER_S + now.tv_nsec / 1000;
}

// Whether the blank line may have come with the bytes behind the first `known` ones. Only they and
// the three before them are looked at: an answer that drips in is not searched from its start every
// time.
static bool has_blank_line_behind(const struct answer *answer, int32_t known)
{
    return strstr(answer->buffer + (known > 3 ? known - 3 : 0), "\r\n\r\n") != nullptr;
}

// Takes `got` new bytes into account. True when the answer is whole or the buffer full.
static bool accept_bytes(const struct source *source, struct answer *answer, int32_t got)
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
    PELKIN_LOG_SUPERSEDED_AS(source->operation,
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

// True when the socket is ready; false when the answer's next byte has been awaited long enough.
static bool wait_for_more(const struct source *source, const struct answer *answer, int16_t mode)
{
    const int64_t left_us = answer->deadline_us - now_us();
    if (left_us > 0 && pelkin_wait_socket(source->sock, (int32_t)(left_us / US_PER_S),
                                          (int32_t)(left_us % US_PER_S), mode) > 0) {
        return true;
    }
    if (answer->length == 0) {
        PELKIN_LOG_AS(source->operation, ERROR, "Socket I/O Read Timeout");
    }
    return false;
}

// A server that holds small segments back until the earlier ones are acknowledged would wait for
// the system's delayed acknowledgement: some 40 ms.
static void acknowledge_at_once(int32_t sock)
{
#ifdef TCP_QUICKACK
    const int on = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
#endif
}

// Records that the library has taken off the socket already make it readable no more.
static bool is_in_library(const struct source *source)
{
    return source->tls != nullptr && SSL_has_pending(source->tls) != 0;
}

static void restart_silence(struct answer *answer)
{
    answer->deadline_us = now_us() + PELKIN_HTTP_WAIT_S * US_PER_S;
}

static void receive_bytes(const struct source *source, struct answer *answer)
{
    int16_t mode = PELKIN_WAIT_READABLE;
    uint32_t without_bytes = 0;
    bool must_wait = !is_in_library(source);
    restart_silence(answer);
    while (!must_wait || wait_for_more(source, answer, mode)) {
        int32_t got = 0;
        const enum read_event event = source->read_some(source, answer, &got);
        if (event == READ_ENDED || (event == READ_GOT_BYTES && accept_bytes(source, answer, got))) {
            return;
        }
        if (event == READ_GOT_BYTES) {
            without_bytes = 0;
            restart_silence(answer);
        } else {
            retry_pause(&without_bytes);
        }
        mode = event == READ_WAIT_WRITABLE ? PELKIN_WAIT_WRITABLE : PELKIN_WAIT_READABLE;
        must_wait = event != READ_GOT_BYTES || !is_in_library(source);
        if (must_wait) {
            acknowledge_at_once(source->sock);
        }
    }
}

// A handshake that the server began and has not ended: another request would get into it.
static bool is_renegotiating(const struct source *source)
{
    return source->tls != nullptr && SSL_in_init(source->tls) != 0;
}

static int32_t receive_answer(const struct source *source, char *buffer, int32_t size,
                              int32_t *length)
{
    buffer[0] = '\0';
    struct answer answer = {
        .buffer = buffer, .size = size, .length = 0, .head_length = 0, .end = -1, .deadline_us = 0};
    receive_bytes(source, &answer);
    if (!is_cleanly_ended(&answer) || is_renegotiating(source)) {
        shutdown(source->sock, SHUT_RDWR);
    }
    *length = answer.length;
    return answer.length > 0 ? 0 : -1;
}

int32_t pelkin_recv_http_rsp(int32_t sock, char *buffer, int32_t size, int32_t *length,
                             const struct http_task *)
{
    const struct source source = {
        .operation = __func__, .read_some = read_plain, .sock = sock, .tls = nullptr};
    return receive_answer(&source, buffer, size, length);
}

int32_t pelkin_recv_https_rsp(const int32_t *sock, SSL *tls, char *buffer, int32_t size,
                              int32_t *length, const struct http_task *)
{
    const struct source source = {
        .operation = __func__, .read_some = read_tls, .sock = *sock, .tls = pelkin_use_tls(tls)};
    // There are servers that won't answer without one. It is given the time that an answer has.
    SSL_clear_options(source.tls, SSL_OP_NO_RENEGOTIATION);
    const int32_t rc = receive_answer(&source, buffer, size, length);
    SSL_set_options(source.tls, SSL_OP_NO_RENEGOTIATION);
    return rc;
}
