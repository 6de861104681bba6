// The running daemon against texts that are more than one request, and servers that keep talking
// without answering.
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

namespace
{

struct TextCase {
    const char *path;
    const char *text;
    uint32_t http_req_type;
    int connections; // that this request and the next one take
};

const char SECOND_REQUEST[] = "a HTTP/1.0\r\n\r\nGET /b HTTP/1.0\r\n\r\n";

const TextCase TEXT_CASES[] = {
    {"/p", SECOND_REQUEST, 0, 2},
    {"/p", "a\nb", 0, 2},
    {"/p", "a\rb", 0, 2},
    {"/p", "a\vb", 0, 2},
    {"/p",
     "a\x85"
     "b",
     0, 2}, // the next line of ISO 6429
    {"/p", "a\x7F", 0, 2},
    {"/p\x1D", "a", 0, 2}, // white space would end the path
    {"/p\x1D", "a", 1, 2},
    {"/p", SECOND_REQUEST, 1, 1}, // a body, with its length
    {"/p~!", "a b%0A", 0, 1},
};

// Answers what it was asked; what came as a second request is answered when the next one is here.
void serve_two_for_one(Connection &connection)
{
    for (std::string request = connection.read_request(); !request.empty();
         request = connection.read_request()) {
        (void)connection.send(answer(request.substr(0, request.find(" HTTP/"))));
        if (!connection.leftover.empty()) {
            connection.leftover.clear();
            if (!connection.wait_for_close()) {
                (void)connection.send(answer("another's"));
            }
            return;
        }
    }
}

} // namespace

TEST(HostileText, NoConnectionGoesOnBehindATextThatMayBeTwoRequests)
{
    Daemon daemon;
    Requester requester;
    for (const bool tls : {false, true}) {
        for (size_t i = 0; i < std::size(TEXT_CASES); i++) {
            SCOPED_TRACE(std::to_string(i) + (tls ? " TLS" : " plain"));
            const TextCase &one = TEXT_CASES[i];
            const std::string host = "127.0.4." + std::to_string(i + 1);
            Server server({.address = host, .tls = tls}, serve_two_for_one);
            const std::string url = (tls ? "https://" : "http://") + host;
            EXPECT_NE(
                requester.ask(
                    {.url = url + one.path, .text = one.text, .http_req_type = one.http_req_type}),
                "<none>");
            EXPECT_EQ(requester.ask({.url = url + "/next"}), "GET /next");
            EXPECT_EQ(server.connections, one.connections);
        }
    }
}

namespace
{

const int PATIENCE_S = 25; // of servers: more than twice the silence that the daemon bears

// One step of a server that doesn't answer; false when it cannot go on.
using Step = bool (*)(Connection &connection);

struct SilenceCase {
    const char *name;
    int highest_version;
    Step begin;
    Step go_on;
    int pause_ms;
};

bool update_key(Connection &connection)
{
    return SSL_key_update(connection.tls, SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
           SSL_do_handshake(connection.tls) == 1;
}

bool send_raw(Connection &connection, std::string_view bytes)
{
    return ::send(connection.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
}

bool do_nothing(Connection &)
{
    return true;
}

bool ask_for_renegotiation(Connection &connection)
{
    return SSL_renegotiate(connection.tls) == 1 && SSL_do_handshake(connection.tls) == 1;
}

const SilenceCase SILENCE_CASES[] = {
    {"KeyUpdates", TLS1_3_VERSION, do_nothing, update_key, 500},
    {"FloodOfKeyUpdates", TLS1_3_VERSION, do_nothing, update_key, 0},
    {"RecordThatDripsIn", TLS1_3_VERSION,
     [](Connection &connection) {
         return send_raw(connection, std::string_view("\x17\x03\x03\x40\x00", 5));
     },
     [](Connection &connection) { return send_raw(connection, "x"); }, 500},
    {"RenegotiationThatStands", TLS1_2_VERSION, ask_for_renegotiation, do_nothing, 500},
};

// True when the client ends the connection before the server's patience does.
bool is_given_up(Connection &connection, const SilenceCase &one)
{
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::seconds(PATIENCE_S);
    pollfd watched = {.fd = connection.fd, .events = POLLRDHUP, .revents = 0};
    (void)one.begin(connection);
    while (clock::now() < end) {
        if (poll(&watched, 1, one.pause_ms) > 0 || !one.go_on(connection)) {
            return true;
        }
    }
    return false;
}

void run_silence_case(const SilenceCase &one, const std::string &host)
{
    SCOPED_TRACE(one.name);
    bool given_up = false;
    Server server({.address = host, .tls = true, .highest_version = one.highest_version},
                  [&](Connection &connection) {
                      if (connection.number == 1) {
                          (void)connection.read_request();
                          given_up = is_given_up(connection, one);
                      } else {
                          serve_bodies(body_of)(connection);
                      }
                  });
    const Requester requester("/tmp/" + host);
    EXPECT_EQ(requester.ask({.url = "https://" + host + "/p", .text = "x", .http_req_type = 1}),
              "x");
    EXPECT_EQ(server.connections, 2);
    server.stop();
    EXPECT_TRUE(given_up);
}

} // namespace

// All side by side: each takes its ten seconds.
TEST(HostileServer, BytesThatBringNoAnswerAreSilence)
{
    Daemon daemon;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::size(SILENCE_CASES); i++) {
        threads.emplace_back(run_silence_case, SILENCE_CASES[i],
                             "127.0.5." + std::to_string(i + 1));
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

namespace
{

// Waits for the client to have shaken hands anew.
bool renegotiate(Connection &connection)
{
    (void)ask_for_renegotiation(connection);
    (void)fcntl(connection.fd, F_SETFL, O_NONBLOCK);
    pollfd watched = {.fd = connection.fd, .events = POLLIN, .revents = 0};
    char byte = 0;
    while (SSL_renegotiate_pending(connection.tls) != 0 &&
           poll(&watched, 1, DEADLINE_S * 1000) == 1) {
        const int rc = SSL_peek(connection.tls, &byte, 1);
        if (rc <= 0 && SSL_get_error(connection.tls, rc) != SSL_ERROR_WANT_READ) {
            break;
        }
    }
    (void)fcntl(connection.fd, F_SETFL, 0);
    return SSL_renegotiate_pending(connection.tls) == 0;
}

} // namespace

TEST(HostileServer, RenegotiationIsServedWhileAnAnswerIsAwaited)
{
    Daemon daemon;
    Requester requester;
    Server patient({.tls = true, .highest_version = TLS1_2_VERSION}, [](Connection &connection) {
        for (std::string request = connection.read_request(); !request.empty();
             request = connection.read_request()) {
            if (!renegotiate(connection) || !connection.send(answer(body_of(request)))) {
                return;
            }
        }
    });
    // Its handshake is open when the answer is whole.
    Server hasty({.address = "127.0.0.2", .tls = true, .highest_version = TLS1_2_VERSION},
                 [](Connection &connection) {
                     const std::string request = connection.read_request();
                     (void)ask_for_renegotiation(connection);
                     (void)connection.send(answer(body_of(request)));
                     (void)connection.wait_for_close();
                 });
    for (const std::string text : {"1", "2", "3"}) {
        for (const char *url : {"https://127.0.0.1/p", "https://127.0.0.2/p"}) {
            EXPECT_EQ(requester.ask({.url = url, .text = text, .http_req_type = 1}), text);
        }
    }
    EXPECT_EQ(patient.connections, 1);
    EXPECT_EQ(hasty.connections, 3);
}
