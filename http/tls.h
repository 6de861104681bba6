/*
 * The daemon's TLS context and the objects of its connections. Nobody's certificate is checked and
 * no server name is sent: the servers are the operator's own and often old, so TLS 1.0, short keys
 * and SHA-1 signatures are accepted too. The context is shared and only read; each object belongs
 * to one thread.
 */
#ifndef PELKIN_HTTP_TLS_H
#define PELKIN_HTTP_TLS_H

#include <openssl/ssl.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What ERR_error_string() asks for. */
#define PELKIN_TLS_ERROR_TEXT_SIZE 256

/* The daemon's one TLS client context: set by start-up before any worker exists, freed by shutdown.
 */
extern SSL_CTX *pelkin_ctx;

/* A new context, which the caller frees with SSL_CTX_free(), or null (logged). Main thread. */
SSL_CTX *pelkin_create_ctx(void);

/*
 * The daemon's context with a reference of the caller's own, who gives it back with SSL_CTX_free();
 * null when there is none. Main thread.
 */
SSL_CTX *pelkin_hold_ctx(void);

/*
 * A new TLS object, which the caller frees with SSL_free(), or null (logged); a null context makes
 * none.
 */
SSL *pelkin_create_ssl(SSL_CTX *context);

/*
 * Runs a complete new handshake over the connected, blocking `sock`, whatever `tls` was connected
 * to before. Returns 0, or -1 (logged).
 */
int32_t pelkin_start_tls(int32_t sock, SSL *tls);

/*
 * To be called before each call of the library that reads or writes: the object to call it for.
 * That is `tls`, or the successor that had to take its place and goes with it. The thread's error
 * queue is empty then, and the call reads its socket a limited number of times: a server that sends
 * records without end, none of them an answer's, gets SSL_ERROR_WANT_READ instead of a thread.
 */
SSL *pelkin_use_tls(SSL *tls);

#ifdef __cplusplus
}
#endif
#endif
