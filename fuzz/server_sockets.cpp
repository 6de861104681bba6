#include "fuzz/scripted_server.h"
#include "fuzz/server_state.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include "fuzz/harness.h"
#include "http/connection.h"

int32_t pelkin_open_connection(const char *, int32_t *sock, SSL *, const char *, uint32_t)
{
    require(!server.is_connected && server.sock < 0, "the old socket is closed first");
    server.is_refused = server_next_block()->reconnection != RECONNECTION_WORKS;
    if (server_next_block()->reconnection == RECONNECTION_NO_SOCKET) {
        *sock = -1;
        return -1;
    }
    server.sock = SERVER_FIRST_SOCK + ++server.reconnections;
    *sock = server.sock;
    if (server.is_refused) {
        return -1;
    }
    server_connect_anew();
    return 0;
}

int32_t pelkin_wait_socket(int32_t sock, int32_t, int32_t, int16_t mode)
{
    require(sock == server.sock, "the wait is for the connection's socket");
    require((mode == PELKIN_WAIT_WRITABLE) == server.must_wait_writable,
            "the wait is for what the read asked for");
    if (server.must_wait_writable) {
        server.must_wait_writable = false;
        return 1;
    }
    const size_t on_socket = server.piece + server.library_pieces;
    if (server.block != nullptr && on_socket < server.block->pieces.size()) {
        return 1;
    }
    switch (server.block != nullptr ? server.block->end : END_CLOSED) {
    case END_SILENT:
        return 0;
    case END_WAIT_FAILS:
        errno = EINVAL;
        return -1;
    default:
        return 1;
    }
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd)
{
    if (fd < SERVER_FIRST_SOCK) {
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

extern "C" int __wrap_ppoll(struct pollfd *watched, nfds_t, const struct timespec *, const void *)
{
    require(watched->fd == server.sock, "the look is at the connection's socket");
    if (server.was_interrupted) {
        server.was_interrupted = false;
        watched->revents = POLLOUT;
        return 1;
    }
    switch (server_look_before_request()) {
    case BEFORE_INTERRUPTED:
        server.was_interrupted = true;
        errno = EINTR;
        return -1;
    case BEFORE_STRAY_BYTE:
        watched->revents = POLLOUT | POLLIN;
        return 1;
    case BEFORE_CLOSED:
        watched->revents = POLLOUT | POLLIN | POLLHUP;
        return 1;
    case BEFORE_SILENT:
        return 0;
    default:
        watched->revents = POLLOUT;
        return 1;
    }
}

extern "C" ssize_t __wrap_send(int sock, const void *, size_t length, int)
{
    require(sock == server.sock && server.is_connected, "requests go to an open connection");
    errno = EPIPE;
    return server_take_request() ? (ssize_t)length : -1;
}

extern "C" ssize_t __wrap_recv(int sock, void *to, size_t room, int)
{
    require(sock == server.sock && room > 0, "a read has room");
    if (!server_has_bytes()) {
        errno = server.block->end == END_BROKEN ? ECONNRESET : 0;
        return server.block->end == END_BROKEN ? -1 : 0;
    }
    const enum before_piece before = server_lateness_of_piece();
    if (before != PIECE_AT_ONCE) {
        errno = before == PIECE_LATE_READABLE ? EAGAIN : EINTR;
        return -1;
    }
    return server_read_piece(to, room);
}
