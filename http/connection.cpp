#include "http/connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include "core/http_task.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/poll_one.h"

// Resolver results of one name: several hundred addresses.
static const size_t RESOLVER_BUFFER_SIZE = 8192;
// The largest request is a good 63 KB. It is written in one go, so the socket takes it whole even
// before the server has acknowledged anything; the kernel doubles the number for its own overhead.
static const int SEND_BUFFER_SIZE = 128 * 1024;
// A server's host that vanishes in the middle of a handshake, which has no time-out, would hold its
// thread for ever: with these the system gives the connection up after some two minutes.
static void set_keepalive(int sock)
{
    static const int on = 1;
    static const int idle_s = 60;
    static const int interval_s = 10;
    static const int probes = 6;
    setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

static const char PROTOCOL_NAME[] = "tcp";

// Its number, or -1. Not every C library has the kind of this function that threads share: the lock
// makes one of the other, whose answer is the whole process's.
static int find_protocol(void)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    (void)pthread_mutex_lock(&lock);
    const struct protoent *found = getprotobyname(PROTOCOL_NAME); // NOLINT(concurrency-mt-unsafe)
    const int number = found != nullptr ? found->p_proto : -1;
    (void)pthread_mutex_unlock(&lock);
    return number;
}

void pelkin_prepare_lookups(void)
{
    find_protocol();
}

int32_t pelkin_create_tcp_socket(void)
{
    const int protocol = find_protocol();
    if (protocol < 0) {
        PELKIN_LOG_ERROR("can't get \"%s\" protocol entryn", PROTOCOL_NAME);
        return -1;
    }
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, protocol);
    if (sock < 0) {
        return -1;
    }
    // A request is one small segment: holding it back for the acknowledgement of the handshake's
    // last one would cost some 40 ms. Both options only make things faster or surer.
    const int on = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_SIZE, sizeof SEND_BUFFER_SIZE);
    set_keepalive(sock);
    return sock;
}

// As a name first, as a dotted address second. 0, or -1 when it is neither.
static int resolve_host(const char *host, struct in_addr *address)
{
    struct hostent entry;
    struct hostent *found = nullptr;
    char buffer[RESOLVER_BUFFER_SIZE];
    int resolver_error = 0;
    const int rc =
        gethostbyname2_r(host, AF_INET, &entry, buffer, sizeof buffer, &found, &resolver_error);
    if (rc == 0 && found != nullptr && found->h_addr_list[0] != nullptr &&
        (size_t)found->h_length <= sizeof *address) {
        memcpy(address, found->h_addr_list[0], (size_t)found->h_length);
        return 0;
    }
    // Behind a blank, inet_addr() takes any text for none of the address.
    address->s_addr = strpbrk(host, " \t\n\v\f\r") == nullptr ? inet_addr(host) : INADDR_NONE;
    return address->s_addr == INADDR_NONE ? -1 : 0;
}

int32_t pelkin_connect_tcp_socket(int32_t sock, SSL *tls, const char *host, uint16_t port)
{
    if (sock < 0 || host == nullptr || port == 0) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL");
        return -1;
    }
    struct sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    if (resolve_host(host, &server.sin_addr) != 0) {
        PELKIN_LOG_ERROR("can't get \"%s\" host entry", host);
        return -1;
    }
    if (connect(sock, (const struct sockaddr *)&server, sizeof server) != 0) {
        const int error = errno;
        PELKIN_LOG_ERROR("connect fail. errno=%d, errmsg:%s", error, error_text(error));
        return -1;
    }
    if (tls != nullptr && pelkin_start_tls(sock, tls) != 0) {
        return -1;
    }
    fcntl(sock, F_SETFL, O_NONBLOCK);
    return 0;
}

int32_t pelkin_open_connection(const char *operation, int32_t *sock, SSL *tls, const char *host,
                               uint32_t is_https)
{
    *sock = pelkin_create_tcp_socket();
    if (*sock < 0) {
        PELKIN_LOG_AS(operation, ERROR, "create tcp socket fail.");
        return -1;
    }
    const uint16_t port = pelkin_port(is_https);
    if (pelkin_connect_tcp_socket(*sock, tls, host, port) != 0) {
        PELKIN_LOG_AS(operation, ERROR, "can't connect to %s:%d", host, port);
        return -1;
    }
    return 0;
}

int32_t pelkin_wait_socket(int32_t sock, int32_t seconds, int32_t microseconds, int16_t mode)
{
    // Not select(): a descriptor of 1024 or more would not fit its sets.
    static const short events[] = {POLLIN, POLLOUT, POLLPRI};
    if (mode < PELKIN_WAIT_READABLE || mode > PELKIN_WAIT_EXCEPTION) {
        errno = EINVAL;
        return -1;
    }
    struct pollfd watched = {.fd = sock, .events = events[mode], .revents = 0};
    int32_t rc = poll_one(&watched, seconds, microseconds);
    if (rc > 0 && (watched.revents & POLLNVAL) != 0) {
        errno = EBADF;
        rc = -1;
    }
    if (rc < 0) {
        const int error = errno;
        PELKIN_LOG_ERROR("wait for socket fail. errno=%d, errmsg:%s", error, error_text(error));
        errno = error;
    }
    return rc;
}
