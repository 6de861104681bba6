#include "fuzz/scripted_server.h"
#include "fuzz/server_state.h"

#include <string.h>

#include "fuzz/harness.h"

SSL *server_tls(void)
{
    static uint64_t object;
    return reinterpret_cast<SSL *>(&object);
}

static int tls_result(int result, int error)
{
    server.tls_error = error;
    return result;
}

extern "C" int __wrap_SSL_get_error(const SSL *, int)
{
    return server.tls_error;
}

extern "C" int __wrap_SSL_has_pending(const SSL *)
{
    return server.library_pieces > 0 ? 1 : 0;
}

extern "C" int __wrap_SSL_peek(SSL *, void *to, int)
{
    switch (server_look_before_request()) {
    case BEFORE_STRAY_BYTE:
        memset(to, 'x', 1);
        return tls_result(1, SSL_ERROR_NONE);
    case BEFORE_CLOSED:
        return tls_result(0, SSL_ERROR_ZERO_RETURN);
    case BEFORE_SILENT:
        return tls_result(-1, SSL_ERROR_WANT_WRITE);
    default:
        return tls_result(-1, SSL_ERROR_WANT_READ);
    }
}

extern "C" int __wrap_SSL_write(SSL *, const void *, int length)
{
    require(server.is_connected, "requests go to an open connection");
    return server_take_request() ? tls_result(length, SSL_ERROR_NONE)
                                 : tls_result(-1, SSL_ERROR_WANT_WRITE);
}

extern "C" int __wrap_SSL_read(SSL *, void *to, int room)
{
    require(room > 0, "a read has room");
    if (!server_has_bytes()) {
        return server.block->end == END_BROKEN ? tls_result(-1, SSL_ERROR_SYSCALL)
                                               : tls_result(0, SSL_ERROR_ZERO_RETURN);
    }
    if (server.library_pieces == 0) {
        const enum before_piece before = server_lateness_of_piece();
        server.must_wait_writable = before == PIECE_LATE_WRITABLE;
        if (before != PIECE_AT_ONCE) {
            return tls_result(-1, before == PIECE_LATE_READABLE ? SSL_ERROR_WANT_READ
                                                                : SSL_ERROR_WANT_WRITE);
        }
        const std::vector<piece> &pieces = server.block->pieces;
        do {
            server.library_pieces++;
        } while (server.piece + server.library_pieces < pieces.size() &&
                 pieces[server.piece + server.library_pieces].comes_with_previous);
    }
    return tls_result(server_read_piece(to, (size_t)room), SSL_ERROR_NONE);
}
