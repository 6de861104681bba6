/*
 * The floor: one blocking connection, one write() and one read() a request (SSL_write() and
 * SSL_read() on TLS), the very bytes that the daemon sends, nothing else.
 */
#include "bench/load.h"

#include <netdb.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/answer.h"
#include "bench/stream.h"
#include "core/http_task.h"
#include "http/connection.h"
#include "http/request.h"

static struct stream stream = {.sock = -1, .tls = nullptr};
static char request[4096];
static int32_t request_length;

static int32_t connect_to(const char *host, const char *port)
{
    struct addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo *found = nullptr;
    if (getaddrinfo(host, port, &hints, &found) != 0) {
        fprintf(stderr, "pelkin_bench_load: no host %s\n", host);
        return -1;
    }
    stream.sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int rc = connect(stream.sock, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    if (rc != 0) {
        load_complain("connect");
        return -1;
    }
    stream_send_at_once(stream.sock);
    return 0;
}

// With the daemon's own settings, so that both negotiate the same.
static int32_t start_tls(void)
{
    SSL_CTX *context = pelkin_create_ctx();
    stream.tls = context != nullptr ? SSL_new(context) : nullptr;
    SSL_CTX_free(context);
    if (stream.tls == nullptr) {
        return -1;
    }
    (void)SSL_clear_mode(stream.tls, SSL_MODE_RELEASE_BUFFERS); // saves memory, costs time
    SSL_set_read_ahead(stream.tls, 1);
    if (SSL_set_fd(stream.tls, stream.sock) != 1 || SSL_connect(stream.tls) != 1) {
        fputs("pelkin_bench_load: no TLS connection\n", stderr);
        return -1;
    }
    fprintf(stderr, "%s %s\n", SSL_get_version(stream.tls), SSL_get_cipher_name(stream.tls));
    return 0;
}

static int32_t open_bare(const struct load_order *order)
{
    static struct http_task task;
    task.is_https = strncmp(order->urls[0], "https://", 8) == 0 ? 1 : 0;
    if (sscanf(order->urls[0], "%*[a-z]://%127[^/]%1023s", task.host, task.path) != 2) {
        fputs("pelkin_bench_load: not a URL with a path\n", stderr);
        return -1;
    }
    (void)pelkin_build_http_req(&task, request, sizeof request, &request_length);
    if (connect_to(task.host, task.is_https != 0 ? "443" : "80") != 0) {
        return -1;
    }
    return task.is_https != 0 ? start_tls() : 0;
}

static uint32_t step_bare(void)
{
    char answer[sizeof BENCH_ANSWER + 1];
    if (stream_write(&stream, request, (size_t)request_length) != 0) {
        load_complain("write");
        return 0;
    }
    const ssize_t got = stream_read(&stream, answer, sizeof answer);
    if (got != sizeof BENCH_ANSWER - 1 || memcmp(answer, BENCH_ANSWER, (size_t)got) != 0) {
        fputs("pelkin_bench_load: not the answer in one piece\n", stderr);
        return 0;
    }
    return 1;
}

static void close_bare(void)
{
    SSL_free(stream.tls);
    (void)close(stream.sock);
}

const struct load_contender load_bare = {
    .name = "bare", .open = open_bare, .step = step_bare, .close = close_bare, .warm_up = 500};
