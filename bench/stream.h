/*
 * A blocking connection, plain or TLS, as the server and the bare loop of the benchmark use it: one
 * call, one write() or read() where the kernel and OpenSSL allow it.
 */
#ifndef PELKIN_BENCH_STREAM_H
#define PELKIN_BENCH_STREAM_H

#include <openssl/ssl.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A connection. The descriptor is the caller's to close, `tls` (null when plain) the caller's to
 * free. Used by one thread at a time. */
struct stream {
    int32_t sock;
    SSL *tls;
};

/* Reads at most `size` bytes; their number, or 0 or less at the end of the connection. */
ssize_t stream_read(const struct stream *stream, void *buffer, size_t size);

/* Writes `length` bytes whole. 0, or -1 when the connection is broken. */
int32_t stream_write(const struct stream *stream, const void *bytes, size_t length);

/* Switches off the delaying of small segments. Errors are ignored: they cost time only. */
void stream_send_at_once(int32_t sock);

#ifdef __cplusplus
}
#endif
#endif
