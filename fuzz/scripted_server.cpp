#include "fuzz/scripted_server.h"

#include <algorithm>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include "fuzz/harness.h"
#include "http/connection.h"
#include "http/tls.h"

static const int FIRST_SOCK = 1 << 20;
static const script_block nobody = {true, BEFORE_CLOSED, "", {}, END_CLOSED};

struct server_state server;

bool server_has_more(void)
{
    return server.next < server.script->size();
}

static const script_block *next_block(void)
{
    return server_has_more() ? &(*server.script)[server.next] : &nobody;
}

int32_t server_open(void)
{
    server.is_connected = true;
    server.block = nullptr;
    server.sock = FIRST_SOCK;
    return server.sock;
}

int32_t pelkin_open_connection(const char *, int32_t *sock, SSL *, const char *, uint32_t)
{
    require(!server.is_connected && server.sock < 0, "the old socket is closed first");
    server.is_refused = next_block()->refuses_connection;
    *sock = server.is_refused ? -1 : server_open();
    return server.is_refused ? -1 : 0;
}

static bool has_bytes(void)
{
    return server.block != nullptr && server.piece < server.block->pieces.size();
}

// Begins an attempt: whether the connection, as it stands, can carry it.
static enum before_request look_before_request(void)
{
    server.attempts++;
    enum before_request before = next_block()->before;
    if (!server.is_connected || (server.block != nullptr && server.block->end <= END_BROKEN)) {
        before = BEFORE_CLOSED;
    } else if (has_bytes()) {
        before = BEFORE_STRAY_BYTE;
    }
    server.next += before != BEFORE_QUIET && before != BEFORE_WRITE_FAILS ? 1 : 0;
    return before;
}

int32_t pelkin_wait_socket(int32_t sock, int32_t, int32_t, int16_t)
{
    require(sock == server.sock, "the wait is for the connection's socket");
    if (has_bytes() || server.block == nullptr || server.block->end <= END_BROKEN) {
        return 1;
    }
    errno = EINVAL;
    return server.block->end == END_SILENT ? 0 : -1;
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd)
{
    if (fd < FIRST_SOCK) {
        return __real_close(fd);
    }
    require(fd == server.sock, "only the connection's socket is closed");
    server.is_connected = false;
    server.sock = -1;
    return 0;
}

extern "C" int __wrap_shutdown(int sock, int how)
{
    require(sock == server.sock && how == SHUT_RDWR, "the connection is ended as a whole");
    server.is_connected = false;
    return 0;
}

extern "C" int __wrap_poll(struct pollfd *watched, nfds_t, int)
{
    static const short events[BEFORE_COUNT] = {POLLOUT, POLLOUT | POLLIN,
                                               POLLOUT | POLLIN | POLLHUP, 0, POLLOUT};
    require(watched->fd == server.sock, "the look is at the connection's socket");
    watched->revents = events[look_before_request()];
    return watched->revents != 0 ? 1 : 0;
}

extern "C" ssize_t __wrap_send(int sock, const void *, size_t length, int)
{
    require(sock == server.sock && server.is_connected, "requests go to an open connection");
    const script_block *block = next_block();
    server.next++;
    if (block->before == BEFORE_WRITE_FAILS) {
        errno = EPIPE;
        return -1;
    }
    server.block = server.answered = block;
    server.piece = server.piece_done = server.done = 0;
    server.was_late = false;
    return (ssize_t)length;
}

// A look at the TLS connection's socket before a request: what it sees is the library's to tell.
static ssize_t glance(void)
{
    server.before = look_before_request();
    server.has_glanced = server.before != BEFORE_QUIET && server.before != BEFORE_WRITE_FAILS;
    errno = EAGAIN;
    return server.has_glanced ? server.before != BEFORE_CLOSED : -1;
}

extern "C" ssize_t __wrap_recv(int sock, void *to, size_t room, int flags)
{
    require(sock == server.sock && room > 0, "a read has room");
    if ((flags & MSG_PEEK) != 0) {
        return glance();
    }
    if (!has_bytes()) {
        errno = server.block->end == END_BROKEN ? ECONNRESET : 0;
        return server.block->end == END_BROKEN ? -1 : 0;
    }
    const piece &piece = server.block->pieces[server.piece];
    if (piece.is_late && !server.was_late && server.piece_done == 0) {
        server.was_late = true;
        errno = EAGAIN;
        return -1;
    }
    const size_t got = std::min(room, piece.length - server.piece_done);
    memcpy(to, server.block->answer.data() + server.done, got);
    server.done += got;
    server.piece_done += got;
    if (server.piece_done == piece.length) {
        server.piece++;
        server.piece_done = 0;
        server.was_late = false;
    }
    return (ssize_t)got;
}

// The TLS library's: of the same connection.
static int tls_result(ssize_t result, int error)
{
    server.tls_error = error;
    return (int)result;
}

extern "C" int __wrap_SSL_get_error(const SSL *, int)
{
    return server.tls_error;
}

extern "C" int __wrap_SSL_has_pending(const SSL *)
{
    return 0;
}

SSL *pelkin_use_tls(SSL *tls)
{
    return tls;
}

extern "C" int __wrap_SSL_get_fd(const SSL *)
{
    return server.sock;
}

extern "C" int __wrap_SSL_in_init(const SSL *)
{
    return 0;
}

extern "C" uint64_t __wrap_SSL_set_options(SSL *, uint64_t options)
{
    return options;
}

extern "C" uint64_t __wrap_SSL_clear_options(SSL *, uint64_t)
{
    return 0;
}

extern "C" int __wrap_SSL_peek(SSL *, void *, int)
{
    const enum before_request before = server.has_glanced ? server.before : look_before_request();
    server.has_glanced = false;
    switch (before) {
    case BEFORE_STRAY_BYTE:
        return tls_result(1, SSL_ERROR_NONE);
    case BEFORE_CLOSED:
        return tls_result(0, SSL_ERROR_ZERO_RETURN);
    case BEFORE_SILENT:
        return tls_result(-1, SSL_ERROR_WANT_WRITE);
    default:
        return tls_result(-1, SSL_ERROR_WANT_READ);
    }
}

extern "C" int __wrap_SSL_write(SSL *, const void *bytes, int length)
{
    const ssize_t sent = __wrap_send(server.sock, bytes, (size_t)length, 0);
    return tls_result(sent, sent > 0 ? SSL_ERROR_NONE : SSL_ERROR_WANT_WRITE);
}

extern "C" int __wrap_SSL_read(SSL *, void *to, int room)
{
    const ssize_t got = __wrap_recv(server.sock, to, (size_t)room, 0);
    const int late = server.done % 2 == 0 ? SSL_ERROR_WANT_READ : SSL_ERROR_WANT_WRITE;
    return tls_result(got, got > 0           ? SSL_ERROR_NONE
                           : got == 0        ? SSL_ERROR_ZERO_RETURN
                           : errno == EAGAIN ? late
                                             : SSL_ERROR_SYSCALL);
}
