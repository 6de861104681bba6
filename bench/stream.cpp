#include "bench/stream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

ssize_t stream_read(const struct stream *stream, void *buffer, size_t size)
{
    return stream->tls != nullptr ? SSL_read(stream->tls, buffer, (int)size)
                                  : read(stream->sock, buffer, size);
}

int32_t stream_write(const struct stream *stream, const void *bytes, size_t length)
{
    // A blocking socket and SSL_write() without partial writes take all or fail.
    const ssize_t written = stream->tls != nullptr ? SSL_write(stream->tls, bytes, (int)length)
                                                   : write(stream->sock, bytes, length);
    return written == (ssize_t)length ? 0 : -1;
}

void stream_send_at_once(int32_t sock)
{
    const int on = 1;
    (void)setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}
