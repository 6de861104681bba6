#include "http/tls.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <stdlib.h>

#include "log/log.h"

#if OPENSSL_VERSION_NUMBER < 0x10101000L
#error "OpenSSL 1.1.1 or newer is needed: older ones don't let a reader be stopped in its calls"
#endif

// Enough rounds to seed any generator, few enough to end when the system has no randomness at all:
// the handshake then fails by itself.
static const int SEED_ROUNDS_MAX = 1024;
// Reads of the socket in one call: the largest record (16 KiB) comes in fewer, mostly in one.
static const int READS_MAX = 16;

SSL_CTX *pelkin_ctx;

// Where an object keeps its successor; -1 until the first context is made. Main thread writes,
// before others read.
static int successor_index = -1;
static __thread int reads_left;

// The library's text for the oldest error of this thread.
static const char *oldest_error_reason(void)
{
    const char *reason = ERR_reason_error_string(ERR_get_error());
    return reason != nullptr ? reason : "no reason given";
}

static void free_successor(void *, void *successor, CRYPTO_EX_DATA *, int, long, void *)
{
    SSL_free((SSL *)successor);
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
    if (successor_index < 0) {
        successor_index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, free_successor);
    }
    // Servers without secure renegotiation were accepted as a matter of course by the library
    // series that the device was built with; newer ones ask to be told. A server that asks for a
    // renegotiation is told no, unless an answer is awaited (http/receive): begun between two
    // requests it would not be finished.
    SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 |
                                     SSL_OP_LEGACY_SERVER_CONNECT | SSL_OP_NO_RENEGOTIATION);
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

SSL *pelkin_use_tls(SSL *tls)
{
    SSL *successor = (SSL *)SSL_get_ex_data(tls, successor_index);
    ERR_clear_error();
    reads_left = READS_MAX;
    return successor != nullptr ? successor : tls;
}

// The library clears no object that is in the middle of a renegotiation, and the owner of `tls`
// knows of no other: a new one takes its place from inside. Null without memory.
static SSL *make_successor(SSL *tls)
{
    SSL *old = (SSL *)SSL_get_ex_data(tls, successor_index);
    SSL *successor = SSL_new(SSL_get_SSL_CTX(tls));
    if (SSL_set_ex_data(tls, successor_index, successor) != 1) {
        SSL_free(successor);
        return nullptr;
    }
    SSL_free(old);
    return successor;
}

// The object to connect with, as good as new: one that was connected before would report an old
// handshake as the new one, and offer the old session for resumption. Null without memory.
static SSL *clear_tls(SSL *tls)
{
    SSL *live = pelkin_use_tls(tls);
    SSL_set_session(live, nullptr);
    return SSL_clear(live) == 1 ? live : make_successor(tls);
}

static void seed_random_generator(void)
{
    RAND_poll();
    for (int round = 0; RAND_status() == 0 && round < SEED_ROUNDS_MAX; round++) {
        const uint16_t seed = (uint16_t)rand(); // NOLINT(cert-msc50-cpp,concurrency-mt-unsafe)
        RAND_seed(&seed, sizeof seed);
    }
}

// Called by the library around each access to the socket; what it returns before a read decides
// whether there is one.
static long limit_reads(BIO *bio, int operation, const char *, size_t, int, long, int result,
                        size_t *)
{
    if (operation != BIO_CB_READ || reads_left-- > 0) {
        return result;
    }
    BIO_clear_retry_flags(bio);
    BIO_set_retry_read(bio);
    return -1;
}

int32_t pelkin_start_tls(int32_t sock, SSL *tls)
{
    SSL *live = clear_tls(tls);
    if (live == nullptr || SSL_set_fd(live, sock) != 1) {
        PELKIN_LOG_AS("pelkin_connect_tcp_socket", ERROR, "add SSL to tcp socket failed:%s",
                      oldest_error_reason());
        return -1;
    }
    // One read takes a whole small answer, not its record header first.
    SSL_set_read_ahead(live, 1);
    seed_random_generator();
    ERR_clear_error();
    if (SSL_connect(live) != 1) {
        PELKIN_LOG_AS("pelkin_connect_tcp_socket", ERROR, "SSL connection failed:%s",
                      oldest_error_reason());
        return -1;
    }
    BIO_set_callback_ex(SSL_get_rbio(live), limit_reads);
    return 0;
}
