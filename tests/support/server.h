/*
 * A scripted HTTP server, plain or TLS, on loopback. Every address of 127.0.0.0/8 is a server of
 * its own, so that cases can run side by side on ports 80 and 443.
 */
#ifndef PELKIN_TESTS_SUPPORT_SERVER_H
#define PELKIN_TESTS_SUPPORT_SERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <openssl/ssl.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace support
{

/* One accepted connection; for the script that runs on its thread. */
struct Connection {
    /* A request, head and announced body; "" when the client has closed. */
    std::string read_request();
    /* All of it; false when the client is gone. */
    bool send(std::string_view bytes);
    /* Waits until the client closes or sends something: true when it closed. */
    bool wait_for_close();
    /* Waits until the client's process has read all that was sent. */
    void wait_until_read() const;
    /* Closes in an orderly way (with a TLS close message); or ends with a TCP reset, which goes out
     * when the script returns. Nothing can be sent after either. */
    void close();
    void reset();

    int fd = -1;
    SSL *tls = nullptr;
    int number = 0;       // 1 for the first connection of this server
    std::string leftover; // read past the end of the latest request
};

using Script = std::function<void(Connection &)>;

struct ServerOptions {
    std::string address = "127.0.0.1";
    bool tls = false;
    uint16_t port = 0;      // 0: 80, or 443 with TLS
    int rsa_bits = 0;       // 0: a P-256 key
    bool sha1 = false;      // signs the certificate with SHA-1
    int lowest_version = 0; // TLS1_VERSION..., 0: the library's
    int highest_version = 0;
    int receive_room = 0; // bytes that a client can send before the script reads; 0: the system's
    int security_level = -1; // -1: the library's
    /* Called before each TLS handshake, on the connection's thread; false ends the connection. */
    std::function<bool(int fd)> before_handshake = nullptr;
};

/* Listens from construction to destruction; each connection runs `script` on a thread of its own
 * and is closed in an orderly way when the script returns. Threads of ended connections go with the
 * next connection, so that a server may run for hours. */
struct Server {
    Server(const ServerOptions &options, Script script);
    ~Server();
    Server(const Server &) = delete;

    /* Stops listening and cuts all connections; the destructor does the same. */
    void stop();

    std::atomic<int> connections{0};
    std::atomic<int> resumed{0}; // handshakes that resumed an earlier session

    int listener = -1;
    SSL_CTX *context = nullptr;
    std::function<bool(int fd)> before_handshake;
    Script script;
    std::mutex guard; // of the three below
    std::vector<int> open_fds;
    std::vector<std::thread> threads;
    std::vector<std::thread::id> ended_threads;
    std::thread acceptor;
};

/* "HTTP/1.0 200 OK", a content length, and the body. */
std::string answer(std::string_view body);

/* The data of a request: behind the blank line. */
std::string body_of(const std::string &request);

/* A script that answers each request with what `body` makes of it, until the client closes. */
Script serve_bodies(std::function<std::string(const std::string &request)> body);

} // namespace support
#endif
