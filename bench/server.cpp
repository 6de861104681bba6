/*
 * The server of the benchmark: plain on port 80, TLS on port 443, one thread a connection, which
 * does nothing but read a request to its blank line and write the fixed answer (bench/answer.h);
 * for the path /split in two segments, the second one when the first has been acknowledged, as a
 * server does that leaves it to the system to delay small ones (Nagle's algorithm). Requests with a
 * body are not served. Prints "ready" when it listens, and runs until it is killed.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/answer.h"
#include "bench/stream.h"

static const int BACKLOG = 512;
static const size_t REQUEST_MAX = 4096;

struct listener {
    int32_t sock;
    SSL_CTX *context; // null for plain connections
};

struct connection {
    struct stream stream;
    char request[REQUEST_MAX + 1];
    size_t length;
};

static void open_listener(struct listener *listener, uint16_t port)
{
    const int on = 1;
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    listener->sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    (void)setsockopt(listener->sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listener->sock, (const struct sockaddr *)&address, sizeof address) != 0 ||
        listen(listener->sock, BACKLOG) != 0) {
        perror("pelkin_bench_server: listen");
        exit(1); // NOLINT(concurrency-mt-unsafe): no other thread exists yet
    }
}

static SSL_CTX *create_context(const char *certificate, const char *key)
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr ||
        SSL_CTX_use_certificate_file(context, certificate, SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, key, SSL_FILETYPE_PEM) != 1) {
        fprintf(stderr, "pelkin_bench_server: cannot use %s and %s\n", certificate, key);
        exit(1); // NOLINT(concurrency-mt-unsafe): no other thread exists yet
    }
    SSL_CTX_set_read_ahead(context, 1); // one read() a request
    return context;
}

// Reads on until a whole request is there. Its length, or 0 when the connection ended.
static size_t receive_request(struct connection *connection)
{
    static const char blank_line[] = "\r\n\r\n";
    for (;;) {
        connection->request[connection->length] = '\0';
        const char *end = strstr(connection->request, blank_line);
        if (end != nullptr) {
            return (size_t)(end - connection->request) + sizeof blank_line - 1;
        }
        const ssize_t got =
            stream_read(&connection->stream, connection->request + connection->length,
                        REQUEST_MAX - connection->length);
        if (got <= 0) {
            return 0;
        }
        connection->length += (size_t)got;
    }
}

static int32_t answer(const struct connection *connection)
{
    static const char split[] = "GET /split ";
    static const size_t head_length = sizeof BENCH_ANSWER - sizeof BENCH_BODY;
    const struct stream *stream = &connection->stream;
    const bool is_split = strncmp(connection->request, split, sizeof split - 1) == 0;
    const size_t first = is_split ? head_length : sizeof BENCH_ANSWER - 1;
    if (is_split) {
        const int delay = 0;
        setsockopt(stream->sock, IPPROTO_TCP, TCP_NODELAY, &delay, sizeof delay);
    }
    if (stream_write(stream, BENCH_ANSWER, first) != 0) {
        return -1;
    }
    return is_split ? stream_write(stream, BENCH_BODY, sizeof BENCH_BODY - 1) : 0;
}

static void *serve_connection(void *argument)
{
    struct connection *connection = (struct connection *)argument;
    struct stream *stream = &connection->stream;
    stream_send_at_once(stream->sock);
    if (stream->tls == nullptr ||
        (SSL_set_fd(stream->tls, stream->sock) == 1 && SSL_accept(stream->tls) == 1)) {
        for (size_t used = receive_request(connection); used > 0;
             used = receive_request(connection)) {
            if (answer(connection) != 0) {
                break;
            }
            connection->length -= used;
            memmove(connection->request, connection->request + used, connection->length);
        }
    }
    SSL_free(stream->tls); // null is ignored
    (void)close(stream->sock);
    free(connection);
    return nullptr;
}

static void start_connection(const struct listener *listener, int32_t sock)
{
    struct connection *connection = (struct connection *)calloc(1, sizeof *connection);
    pthread_t thread;
    if (connection == nullptr) {
        (void)close(sock);
        return;
    }
    connection->stream.sock = sock;
    connection->stream.tls = listener->context != nullptr ? SSL_new(listener->context) : nullptr;
    if (pthread_create(&thread, nullptr, serve_connection, connection) != 0) {
        SSL_free(connection->stream.tls);
        free(connection);
        (void)close(sock);
        return;
    }
    (void)pthread_detach(thread);
}

static void *accept_connections(void *argument)
{
    const struct listener *listener = (const struct listener *)argument;
    for (;;) {
        const int sock = accept4(listener->sock, nullptr, nullptr, SOCK_CLOEXEC);
        if (sock >= 0) {
            start_connection(listener, sock);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            perror("pelkin_bench_server: accept");
            return nullptr;
        }
    }
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: pelkin_bench_server CERTIFICATE KEY\n");
        return 1;
    }
    (void)signal(SIGPIPE, SIG_IGN);
    static struct listener plain = {.sock = -1, .context = nullptr};
    static struct listener tls = {.sock = -1, .context = nullptr};
    tls.context = create_context(argv[1], argv[2]);
    open_listener(&plain, 80);
    open_listener(&tls, 443);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, accept_connections, &plain) != 0) {
        return 1;
    }
    puts("ready");
    (void)fflush(stdout);
    (void)accept_connections(&tls);
    return 1;
}
