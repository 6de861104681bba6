#include "tests/support/server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/wait.h"

namespace support
{

static ssize_t read_some(const Connection &connection, char *to, size_t room)
{
    return connection.tls != nullptr ? SSL_read(connection.tls, to, (int)room)
                                     : recv(connection.fd, to, room, 0);
}

static size_t announced_length(const std::string &head)
{
    const size_t at = head.find("Content-Length: ");
    return at == std::string::npos
               ? 0
               : std::strtoul(head.c_str() + at + std::strlen("Content-Length: "), nullptr, 10);
}

std::string Connection::read_request()
{
    std::string all = std::move(leftover);
    leftover.clear();
    char buffer[8192];
    for (;;) {
        const size_t head_end = all.find("\r\n\r\n");
        if (head_end != std::string::npos) {
            const size_t whole = head_end + 4 + announced_length(all.substr(0, head_end));
            if (all.size() >= whole) {
                leftover = all.substr(whole);
                all.resize(whole);
                return all;
            }
        }
        const ssize_t got = fd < 0 ? -1 : read_some(*this, buffer, sizeof buffer);
        if (got <= 0) {
            return "";
        }
        all.append(buffer, (size_t)got);
    }
}

bool Connection::send(std::string_view bytes)
{
    while (!bytes.empty() && fd >= 0) {
        const ssize_t sent = tls != nullptr ? SSL_write(tls, bytes.data(), (int)bytes.size())
                                            : ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix((size_t)sent);
    }
    return fd >= 0;
}

bool Connection::wait_for_close()
{
    char byte = 0;
    return fd < 0 || read_some(*this, &byte, 1) <= 0;
}

// As /proc/net/tcp writes an end of a connection.
static std::string table_text(const sockaddr_in &end)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%08X:%04X", end.sin_addr.s_addr, ntohs(end.sin_port));
    return text;
}

void Connection::wait_until_read() const
{
    sockaddr_in own = {};
    sockaddr_in client = {};
    socklen_t length = sizeof own;
    (void)getsockname(fd, (sockaddr *)&own, &length);
    (void)getpeername(fd, (sockaddr *)&client, &length);
    // Its line goes on with " ST TTTTTTTT:RRRRRRRR": state, send queue, receive queue.
    const std::string ends = table_text(client) + " " + table_text(own);
    (void)wait_until([&] {
        const std::string table = read_file("/proc/net/tcp");
        const size_t at = table.find(ends);
        int unacknowledged = 1;
        (void)ioctl(fd, SIOCOUTQ, &unacknowledged);
        return at == std::string::npos ||
               (unacknowledged == 0 && table.substr(at + ends.size() + 13, 8) == "00000000");
    });
}

// The descriptor stays open until the server has forgotten it: see run_connection().
void Connection::close()
{
    if (fd >= 0) {
        if (tls != nullptr) {
            (void)SSL_shutdown(tls);
        }
        (void)shutdown(fd, SHUT_RDWR);
    }
    fd = -1;
}

void Connection::reset()
{
    const linger at_once = {.l_onoff = 1, .l_linger = 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    fd = -1; // closed, and so reset, by run_connection()
}

static void check(bool ok, const char *what)
{
    if (!ok) {
        std::perror(what);
        std::abort();
    }
}

static void make_certificate(SSL_CTX *context, const ServerOptions &options)
{
    EVP_PKEY *key =
        options.rsa_bits > 0 ? EVP_RSA_gen((unsigned)options.rsa_bits) : EVP_EC_gen("P-256");
    X509 *certificate = X509_new();
    (void)X509_set_version(certificate, 2);
    (void)ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    (void)X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    (void)X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    (void)X509_set_pubkey(certificate, key);
    X509_NAME *name = X509_get_subject_name(certificate);
    (void)X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, (const unsigned char *)"test", -1,
                                     -1, 0);
    (void)X509_set_issuer_name(certificate, name);
    check(X509_sign(certificate, key, options.sha1 ? EVP_sha1() : EVP_sha256()) > 0, "X509_sign");
    check(SSL_CTX_use_certificate(context, certificate) == 1 &&
              SSL_CTX_use_PrivateKey(context, key) == 1,
          "SSL_CTX_use_certificate");
    X509_free(certificate);
    EVP_PKEY_free(key);
}

static SSL_CTX *make_context(const ServerOptions &options)
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (options.security_level >= 0) {
        SSL_CTX_set_security_level(context, options.security_level);
    }
    (void)SSL_CTX_set_min_proto_version(context, options.lowest_version);
    (void)SSL_CTX_set_max_proto_version(context, options.highest_version);
    (void)SSL_CTX_set_session_id_context(context, (const unsigned char *)"test", 4);
    make_certificate(context, options);
    return context;
}

static int listen_on(const ServerOptions &options)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    const uint16_t port = options.port != 0 ? options.port : (options.tls ? 443 : 80);
    address.sin_port = htons(port);
    (void)inet_pton(AF_INET, options.address.c_str(), &address.sin_addr);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (options.receive_room > 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &options.receive_room, sizeof(int));
    }
    check(bind(fd, (const sockaddr *)&address, sizeof address) == 0, "bind");
    check(listen(fd, 1024) == 0, "listen");
    return fd;
}

static bool shake_hands(const Server *server, const Connection &connection)
{
    (void)SSL_set_fd(connection.tls, connection.fd);
    return (!server->before_handshake || server->before_handshake(connection.fd)) &&
           SSL_accept(connection.tls) == 1;
}

// A descriptor is closed only after it has left the list, so that stop() never cuts a stranger's.
static void run_connection(Server *server, int fd, int number)
{
    Connection connection;
    connection.fd = fd;
    connection.number = number;
    if (server->context != nullptr) {
        connection.tls = SSL_new(server->context);
        if (!shake_hands(server, connection)) {
            connection.fd = -1;
        } else if (SSL_session_reused(connection.tls) != 0) {
            server->resumed++;
        }
    }
    if (connection.fd >= 0) {
        server->script(connection);
    }
    connection.close();
    {
        const std::lock_guard<std::mutex> lock(server->guard);
        std::erase(server->open_fds, fd);
        server->ended_threads.push_back(std::this_thread::get_id());
    }
    (void)close(fd);
    SSL_free(connection.tls);
}

// With the guard held: such a thread has nothing left to do that needs it.
static void join_ended_threads(Server *server)
{
    for (const std::thread::id ended : server->ended_threads) {
        const auto found =
            std::find_if(server->threads.begin(), server->threads.end(),
                         [ended](const std::thread &thread) { return thread.get_id() == ended; });
        found->join();
        server->threads.erase(found);
    }
    server->ended_threads.clear();
}

static void accept_all(Server *server)
{
    for (;;) {
        const int fd = accept4(server->listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return; // shut down by stop()
        }
        const int on = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::lock_guard<std::mutex> lock(server->guard);
        join_ended_threads(server);
        server->open_fds.push_back(fd);
        const int number = ++server->connections;
        server->threads.emplace_back(run_connection, server, fd, number);
    }
}

Server::Server(const ServerOptions &options, Script with_script)
    : listener(listen_on(options)), context(options.tls ? make_context(options) : nullptr),
      before_handshake(options.before_handshake), script(std::move(with_script))
{
    (void)signal(SIGPIPE, SIG_IGN); // the library writes without MSG_NOSIGNAL
    acceptor = std::thread(accept_all, this);
}

void Server::stop()
{
    if (listener < 0) {
        return;
    }
    (void)shutdown(listener, SHUT_RDWR);
    acceptor.join();
    {
        const std::lock_guard<std::mutex> lock(guard);
        for (const int fd : open_fds) {
            (void)shutdown(fd, SHUT_RDWR);
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    threads.clear();
    (void)::close(listener);
    listener = -1;
}

Server::~Server()
{
    stop();
    SSL_CTX_free(context);
}

std::string answer(std::string_view body)
{
    return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           std::string(body);
}

std::string body_of(const std::string &request)
{
    const size_t at = request.find("\r\n\r\n");
    return at == std::string::npos ? "" : request.substr(at + 4);
}

Script serve_bodies(std::function<std::string(const std::string &request)> body)
{
    return [body = std::move(body)](Connection &connection) {
        for (std::string request = connection.read_request(); !request.empty();
             request = connection.read_request()) {
            if (!connection.send(answer(body(request)))) {
                return;
            }
        }
    };
}

} // namespace support
