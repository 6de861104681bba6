// Exchanges over real connections, plain and TLS. Which answer comes of which bytes, and the texts
// of the requests, are the business of fuzz/exchange_fuzzer and fuzz/url_split_fuzzer.
#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "core/http_task.h"
#include "http/answer_framing.h"
#include "http/connection.h"
#include "http/exchange.h"
#include "tests/support/server.h"
#include "tests/support/wait.h"

using namespace support;

// Of a second http/answer_framing, compiled with tolerant framing.
extern "C" int32_t tolerant_get_http_data_len(const char *text);

namespace
{

constexpr int32_t RESPONSE_SIZE = PELKIN_MSG_MAX;

// One owner of a connection, as a worker is.
struct Client {
    Client(bool is_https, const std::string &host)
    {
        task->is_https = is_https ? 1 : 0;
        task->http_req_type = PELKIN_HTTP_POST;
        host.copy(task->host, sizeof task->host - 1);
        std::strcpy(task->path, "/p");
        tls = is_https ? pelkin_create_ssl(pelkin_ctx) : nullptr;
    }
    ~Client()
    {
        (void)close(sock);
        SSL_free(tls);
    }
    int32_t connect()
    {
        sock = pelkin_create_tcp_socket();
        return pelkin_connect_tcp_socket(sock, tls, task->host, pelkin_port(task->is_https));
    }
    int32_t exchange(const std::string &text)
    {
        std::memset(task->data, 0, sizeof task->data);
        text.copy((char *)task->data, HTTP_TASK_DATA_MAX);
        response.assign(RESPONSE_SIZE, '#');
        int32_t length = 0;
        const int32_t rc =
            _pelkin_send_recv(&sock, tls, task.get(), response.data(), RESPONSE_SIZE, &length);
        if (rc == 0) {
            EXPECT_EQ(response[(size_t)length], '\0') << "the text's end";
        }
        response.resize((size_t)length);
        return rc;
    }
    std::unique_ptr<struct http_task> task{new struct http_task()};
    SSL *tls = nullptr;
    int32_t sock = -1;
    std::string response;
};

struct Http : testing::Test {
    static void SetUpTestSuite()
    {
        (void)signal(SIGPIPE, SIG_IGN);
        // As on a real network: the huge segments of loopback come with huge send buffers.
        ASSERT_EQ(std::system("ip link set lo mtu 1500"), 0);
        pelkin_ctx = pelkin_create_ctx();
    }
    static void TearDownTestSuite()
    {
        SSL_CTX_free(pelkin_ctx);
    }
};

} // namespace

TEST(AnswerFraming, TolerantBuildTakesAnyCaseAndKnowsAnswersWithoutABody)
{
    static const struct {
        const char *text;
        int32_t strict;
        int32_t tolerant;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\ncontent-length: 5\r\n\r\n", -1, 5},
        {"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 5\r\n\r\n", -1, 5},
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", 5, 5},
        {"HTTP/1.1 204\r\n\r\n", -1, 0},
        {"HTTP/1.0 304 Not Modified\r\nContent-Length: 5\r\n\r\n", 5, 0},
        {"HTTP/1.0 200 204 OK\r\n\r\n", -1, -1},
        {"ICY 204 OK\r\n\r\n", -1, -1},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(pelkin_get_http_data_len(one.text), one.strict) << one.text;
        EXPECT_EQ(tolerant_get_http_data_len(one.text), one.tolerant) << one.text;
    }
}

namespace
{

// How the server's first connection goes that ends between two exchanges.
struct ExchangeCase {
    const char *name;
    Script first;
    const char *answer; // that the first exchange leaves
};

const ExchangeCase EXCHANGE_CASES[] = {
    {"ResetBetweenTasks",
     [](Connection &connection) {
         (void)connection.send(answer(body_of(connection.read_request())));
         connection.wait_until_read();
         connection.reset();
     },
     "0"},
    {"BytesWaitBeforeTheRequest",
     [](Connection &connection) {
         (void)connection.send(answer(body_of(connection.read_request())));
         connection.wait_until_read();
         (void)connection.send(answer("stray"));
         EXPECT_TRUE(connection.wait_for_close()) << "a request behind a stray";
     },
     "0"},
    // The answer that was waited for in vain comes on the old connection, while the new one serves.
    {"LateAnswerAfterSilence",
     [](Connection &connection) {
         (void)connection.read_request();
         (void)connection.send("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\n0123");
         (void)connection.wait_for_close();
         (void)connection.send("45678");
     },
     "0123"},
};

void run_case(const ExchangeCase &one, bool tls, const std::string &address)
{
    SCOPED_TRACE(std::string(one.name) + (tls ? " TLS" : " plain"));
    Server server({.address = address, .tls = tls}, [&one](Connection &connection) {
        connection.number == 1 ? one.first(connection) : serve_bodies(body_of)(connection);
    });
    Client client(tls, address);
    ASSERT_EQ(client.connect(), 0);
    EXPECT_EQ(client.exchange("0"), 0);
    EXPECT_EQ(client.response, one.answer);
    // Unasked bytes, or the end, stand in the socket.
    pollfd watched = {.fd = client.sock, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&watched, 1, DEADLINE_S * 1000), 1);
    EXPECT_EQ(client.exchange("1"), 0);
    EXPECT_EQ(client.response, "1");
    EXPECT_EQ(server.connections, 2);
    EXPECT_EQ(server.resumed, 0);
}

} // namespace

// All cases side by side: the silent one takes its 10 seconds.
TEST_F(Http, ExchangesEndWhereTheyShouldAndNoAnswerLeaksIntoTheNext)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::size(EXCHANGE_CASES); i++) {
        for (const bool tls : {false, true}) {
            const std::string address = "127.0.1." + std::to_string(2 * i + 1 + (tls ? 1 : 0));
            threads.emplace_back(run_case, EXCHANGE_CASES[i], tls, address);
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// The server does not read before the client has written: its own buffer must take the request.
TEST_F(Http, LargestRequestGoesOutWhole)
{
    const std::string text(HTTP_TASK_DATA_MAX, 'q');
    for (const bool tls : {false, true}) {
        Server server({.tls = tls, .receive_room = 4096}, [](Connection &connection) {
            pollfd watched = {.fd = connection.fd, .events = POLLIN, .revents = 0};
            (void)poll(&watched, 1, DEADLINE_S * 1000);
            serve_bodies([](const std::string &request) {
                return std::to_string(body_of(request).size());
            })(connection);
        });
        Client client(tls, "127.0.0.1");
        ASSERT_EQ(client.connect(), 0);
        EXPECT_EQ(client.exchange(text), 0);
        EXPECT_EQ(client.response, std::to_string(text.size()));
        EXPECT_EQ(client.exchange(""), 0);
        EXPECT_EQ(client.response, "0") << "nothing of the large one is left";
        EXPECT_EQ(server.connections, 1) << "it did not go out in one go";
    }
}

// The socket of this client takes less than the request.
TEST_F(Http, HalfWrittenRequestIsFollowedByNoOther)
{
    Server server({.receive_room = 4096}, [](Connection &connection) {
        (void)connection.send(answer(connection.read_request().empty() ? "half" : "whole"));
    });
    Client client(false, "127.0.0.1");
    ASSERT_EQ(client.connect(), 0);
    const int room = 4096;
    (void)setsockopt(client.sock, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    EXPECT_EQ(client.exchange(std::string(HTTP_TASK_DATA_MAX, 'q')), 0);
    EXPECT_EQ(client.response, "half");
}

TEST_F(Http, ServerGoneForGoodFailsAtTheReconnection)
{
    for (const bool tls : {false, true}) {
        Server server({.tls = tls}, serve_bodies(body_of));
        Client client(tls, "127.0.0.1");
        ASSERT_EQ(client.connect(), 0);
        EXPECT_EQ(client.exchange("x"), 0);
        server.stop();
        EXPECT_EQ(client.exchange("y"), -1);
        EXPECT_EQ(server.connections, 1);
    }
}

TEST_F(Http, OldAndNewServersAreAcceptedAndNeverResumed)
{
    static const struct {
        int version;
        const char *name;
        int rsa_bits;
        bool sha1;
    } cases[] = {
        {TLS1_VERSION, "TLSv1", 1024, true},
        {TLS1_1_VERSION, "TLSv1.1", 1024, true},
        {TLS1_2_VERSION, "TLSv1.2", 2048, false},
        {TLS1_3_VERSION, "TLSv1.3", 0, false},
    };
    for (const auto &one : cases) {
        Server server({.tls = true,
                       .rsa_bits = one.rsa_bits,
                       .sha1 = one.sha1,
                       .lowest_version = one.version,
                       .highest_version = one.version,
                       .security_level = 0},
                      [](Connection &connection) { // one answer a connection
                          (void)connection.send(answer(body_of(connection.read_request())));
                      });
        Client client(true, "127.0.0.1");
        ASSERT_EQ(client.connect(), 0) << one.name;
        EXPECT_STREQ(SSL_get_version(client.tls), one.name);
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(client.exchange(std::to_string(i)), 0) << one.name;
            EXPECT_EQ(client.response, std::to_string(i));
        }
        EXPECT_EQ(server.connections, 4);
        EXPECT_EQ(server.resumed, 0) << one.name << ": a session was resumed";
    }
}

TEST_F(Http, ServersThatAskForARenegotiationAreServedOn)
{
    Server server({.tls = true, .highest_version = TLS1_2_VERSION}, [](Connection &connection) {
        for (int i = 0; i < 2; i++) {
            (void)connection.send(answer(body_of(connection.read_request())));
            connection.wait_until_read();
            (void)SSL_renegotiate(connection.tls);
            (void)SSL_do_handshake(connection.tls); // sends the wish and does not wait
        }
    });
    Client client(true, "127.0.0.1");
    ASSERT_EQ(client.connect(), 0);
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(client.exchange(std::to_string(i)), 0);
        EXPECT_EQ(client.response, std::to_string(i));
    }
}

TEST_F(Http, DescriptorBeyondASelectSetIsWaitedForAsAnyOther)
{
    const struct rlimit many = {.rlim_cur = 2048, .rlim_max = 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1100) {
        taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    for (const bool tls : {false, true}) {
        Server server({.tls = tls}, serve_bodies(body_of));
        Client client(tls, "127.0.0.1");
        ASSERT_EQ(client.connect(), 0);
        EXPECT_GT(client.sock, 1024);
        EXPECT_EQ(client.exchange("beyond"), 0);
        EXPECT_EQ(client.response, "beyond");
        EXPECT_EQ(pelkin_wait_socket(client.sock, 0, 1000, PELKIN_WAIT_READABLE), 0);
        EXPECT_EQ(pelkin_wait_socket(client.sock, 0, 1000, PELKIN_WAIT_WRITABLE), 1);
        EXPECT_LT(pelkin_wait_socket(client.sock, 0, 1000, 3), 0);
    }
    for (const int fd : taken) {
        (void)close(fd);
    }
    EXPECT_LT(pelkin_wait_socket(taken.back(), 1, 0, PELKIN_WAIT_READABLE), 0);
}

TEST_F(Http, WhatCannotBeConnectedIsRefused)
{
    Client client(false, "127.0.0.1:8080");
    EXPECT_EQ(client.connect(), -1) << "a port suffix is part of the name";
    EXPECT_EQ(pelkin_connect_tcp_socket(-1, nullptr, "127.0.0.1", 80), -1);
    EXPECT_EQ(pelkin_connect_tcp_socket(client.sock, nullptr, nullptr, 80), -1);
    EXPECT_EQ(pelkin_connect_tcp_socket(client.sock, nullptr, "127.0.0.1", 0), -1);
    EXPECT_EQ(pelkin_connect_tcp_socket(client.sock, nullptr, "no.such.host.invalid", 80), -1);
    EXPECT_EQ(pelkin_connect_tcp_socket(client.sock, nullptr, "127.0.0.1", 80), -1) << "refused";
    Server behind_an_address({}, [](Connection &) { ADD_FAILURE() << "text behind an address"; });
    EXPECT_EQ(pelkin_connect_tcp_socket(client.sock, nullptr, "127.0.0.1\r\nX: y", 80), -1);
    // A TLS client meets a server that speaks no TLS.
    Server server({.port = 443}, [](Connection &connection) {
        (void)connection.wait_for_close();
        (void)connection.send("HTTP/1.0 400 What\r\n\r\n");
    });
    Client tls_client(true, "127.0.0.1");
    EXPECT_EQ(tls_client.connect(), -1);
}
