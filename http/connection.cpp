#include "http/connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "core/http_task.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/poll_one.h"

#if OPENSSL_VERSION_NUMBER < 0x10100000L
#error                                                                                             \
    "OpenSSL 1.1.0 or newer is needed: older ones are not safe with several threads by themselves"
#endif

// Resolver results of one name: several hundred addresses.
static const size_t RESOLVER_BUFFER_SIZE = 8192;
// The largest request is a good 63 KB. It is written in one go, so the socket takes it whole even
// before the server has acknowledged anything; the kernel doubles the number for its own overhead.
static const int SEND_BUFFER_SIZE = 128 * 1024;
// Enough rounds to seed any generator, few enough to end when the system has no randomness at all:
// the handshake then fails by itself.
static const int SEED_ROUNDS_MAX = 1024;

SSL_CTX *pelkin_ctx;

// The library's text for the oldest error of this thread.
static const char *oldest_error_reason(void)
{
    const char *reason = ERR_reason_error_string(ERR_get_error());
    return reason != nullptr ? reason : "no reason given";
}

SSL_CTX *pelkin_create_ctx(void)
{
#ifdef OPENSSL_INIT_NO_ATEXIT
    // Other threads may be inside the library when the process ends.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
#endif
    SSL_load_error_strings();
    SSL_library_init();
    ERR_clear_error();
    SSL_CTX *context = SSL_CTX_new(SSLv23_client_method());
    if (context == nullptr) {
        PELKIN_LOG_ERROR("init SSL CTX failed:%s", oldest_error_reason());
        return nullptr;
    }
    // Servers without secure renegotiation were accepted as a matter of course by the library
    // series that the device was built with; newer ones ask to be told.
    SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 |
                                     SSL_OP_LEGACY_SERVER_CONNECT);
#ifdef SSL_OP_NO_RENEGOTIATION
    // A server that asks for it is told no. Begun between two requests it would not be finished,
    // and the object could be used for no other connection then.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
#endif
    // Explicit, because the system's own configuration may ask for more than an old server can
    // give.
    SSL_CTX_set_security_level(context, 0);
    SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
    SSL_CTX_set_cipher_list(
        context,
        "AES128-GCM-SHA256:ECDHE-RSA-AES128-SHA256:-MEDIUM:!RC4:HIGH:!MD5:!aNULL:!EDH:-LOW");
    // An idle connection keeps no record buffers: there may be hundreds of them for hours.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
    return context;
}

SSL_CTX *pelkin_hold_ctx(void)
{
    if (pelkin_ctx != nullptr) {
        SSL_CTX_up_ref(pelkin_ctx);
    }
    return pelkin_ctx;
}

SSL *pelkin_create_ssl(SSL_CTX *context)
{
    ERR_clear_error();
    SSL *tls = SSL_new(context);
    if (tls == nullptr) {
        PELKIN_LOG_ERROR("new SSL with created CTX failed:%s", oldest_error_reason());
    }
    return tls;
}

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
    address->s_addr = inet_addr(host);
    return address->s_addr == INADDR_NONE ? -1 : 0;
}

static void seed_random_generator(void)
{
    RAND_poll();
    for (int round = 0; RAND_status() == 0 && round < SEED_ROUNDS_MAX; round++) {
        const uint16_t seed = (uint16_t)rand(); // NOLINT(cert-msc50-cpp,concurrency-mt-unsafe)
        RAND_seed(&seed, sizeof seed);
    }
}

static int32_t start_tls(int32_t sock, SSL *tls)
{
    ERR_clear_error();
    // An object that was connected before would report an old handshake as the new one, and offer
    // the old session for resumption.
    SSL_set_session(tls, nullptr);
    const bool is_cleared = SSL_clear(tls) == 1; // fails without memory
    // One read takes a whole small answer, not its record header first.
    SSL_set_read_ahead(tls, 1);
    if (!is_cleared || SSL_set_fd(tls, sock) != 1) {
        PELKIN_LOG_AS("pelkin_connect_tcp_socket", ERROR, "add SSL to tcp socket failed:%s",
                      oldest_error_reason());
        return -1;
    }
    seed_random_generator();
    ERR_clear_error();
    if (SSL_connect(tls) != 1) {
        PELKIN_LOG_AS("pelkin_connect_tcp_socket", ERROR, "SSL connection failed:%s",
                      oldest_error_reason());
        return -1;
    }
    return 0;
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
    if (tls != nullptr && start_tls(sock, tls) != 0) {
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
    const int32_t rc = poll_one(&watched, seconds, microseconds);
    if (rc > 0 && (watched.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return rc;
}
