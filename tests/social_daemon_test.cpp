// Token verification through the running daemon: requests in, the station manager's messages out.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "tests/support/social_batch.h"

using support::make_tokens;

static const char NO_VERIFICATION[] = "/tmp/ignore_fb_token_verification";
static const char NO_RESULT[] = "/tmp/ignore_fb_token_verification_result";
static const std::string REMOVAL("\0\x15\0\0\x0B\0\0\x03\x06\0\0\0\x02\0\0\0\0\x01", 18);

static support::Request batch_request(const std::vector<std::string> &tokens)
{
    return {.url = "http://127.0.0.1/batch",
            .msg_id = PELKIN_MSG_REAUTH_REQ,
            .resp_method = PELKIN_RESP_ANALYSE,
            .http_req_type = PELKIN_HTTP_POST,
            .data = support::make_batch(tokens)};
}

static support::Request token_request()
{
    return {.url = "http://127.0.0.1/token",
            .text = "access_token=1",
            .msg_id = PELKIN_MSG_FBAUTH_REQ,
            .resp_method = PELKIN_RESP_ANALYSE};
}

// A verification server that knows the tokens "a" and "b" and holds neither for valid, a daemon
// that tells everything, and the station manager.
struct Verification : public testing::Test {
    Verification()
        : server({}, support::serve_bodies([this](const std::string &request) {
                     asked++;
                     return request.rfind("GET", 0) == 0
                                ? "{\"valid\":false}"
                                : support::batch_answer({"b", "a"}, "false");
                 }))
    {
        serve();
        daemon.set_trace_level(7, service);
    }

    void serve()
    {
        kivren = std::make_unique<support::Requester>(KIVREN_SOCKET_PATH);
    }

    // Each switch is on while its file exists.
    void set_switches(int no_verification, int no_result)
    {
        (void)unlink(NO_VERIFICATION);
        (void)unlink(NO_RESULT);
        if (no_verification != 0) {
            support::write_file(NO_VERIFICATION, "");
        }
        if (no_result != 0) {
            support::write_file(NO_RESULT, "");
        }
        const std::string confirmation =
            "ignore_fb_token_verification = " + std::to_string(no_verification) +
            ", ignore_fb_token_verification_result = " + std::to_string(no_result);
        const size_t before = log.count(confirmation);
        (void)kill(daemon.pid, SIGUSR2);
        ASSERT_TRUE(log.wait_for(confirmation, before + 1));
    }

    void send_both()
    {
        ASSERT_TRUE(module.send(batch_request({"a", "b"})));
        ASSERT_TRUE(module.send(token_request()));
    }

    // The next two messages are the report and the removal.
    void expect_both()
    {
        EXPECT_EQ(kivren->receive(), support::report_bytes({{1, 0}, {0, 0}}));
        EXPECT_EQ(kivren->receive(), REMOVAL);
    }

    std::atomic<int> asked{0};
    support::Server server;
    support::LogSink service;
    support::SyslogSink log; // gets every line, while the service loses those of a burst
    support::Daemon daemon;
    support::Requester module;
    std::unique_ptr<support::Requester> kivren;
};

TEST_F(Verification, SwitchesActInTheMiddleOfTraffic)
{
    send_both();
    expect_both();

    set_switches(0, 1);
    send_both();
    EXPECT_TRUE(log.wait_for("ignore fb token verification result.", 2));
    EXPECT_EQ(asked, 4);

    set_switches(1, 0);
    send_both();
    EXPECT_TRUE(log.wait_for("ignore fb token verification.", 2));

    set_switches(0, 0);
    send_both();
    expect_both();
    EXPECT_EQ(asked, 6) << "a request that is to be ignored still reached the server";
    EXPECT_EQ(server.connections, 1);
}

TEST_F(Verification, ReportsArriveAgainOnceTheStationManagerIsBack)
{
    kivren.reset();
    send_both();
    EXPECT_TRUE(log.wait_for("Failed to send reauth response."));
    EXPECT_TRUE(log.wait_for("Failed to send del sta(mac:02:00:00:00:00:01) request to kivren."));

    serve();
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = KIVREN_SOCKET_PATH};
    while (sendto(module.fd, "x", 1, MSG_DONTWAIT, (const sockaddr *)&address, sizeof address) ==
           1) { // until its queue is full
    }
    ASSERT_TRUE(module.send(batch_request({"a", "b"})));
    EXPECT_TRUE(log.wait_for("Failed to send reauth response.", 2));
    while (kivren->receive(0)) {
    }
    send_both();
    expect_both();
    EXPECT_EQ(server.connections, 1);
}

TEST(VerificationUnderSmallStacks, LargestBatchIsAskedForWholeAndReportedWhole)
{
    const std::vector<std::string> tokens = make_tokens(759, 60);
    std::mutex guard; // of `body`
    std::string body;
    support::Server server({}, support::serve_bodies([&](const std::string &request) {
                               const std::lock_guard<std::mutex> lock(guard);
                               body = support::body_of(request);
                               return support::batch_answer(tokens, "true");
                           }));
    // Sanitizers multiply what a call needs.
    const bool small = !support::is_sanitized();
    const support::Daemon daemon(
        {"bash", "-c", small ? "ulimit -s 256; exec PELKIN" : "exec PELKIN"});
    const support::Requester kivren(KIVREN_SOCKET_PATH);
    const support::Requester module;
    const auto asked_for = [&](const std::string &expected) {
        const std::lock_guard<std::mutex> lock(guard);
        return body == expected;
    };
    support::Report report;
    for (int station = 0; station < 759; station++) {
        report.emplace_back(station, 1);
    }
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(module.send(batch_request(tokens)));
        EXPECT_EQ(kivren.receive(), support::report_bytes(report));
        EXPECT_TRUE(asked_for(support::batch_body(tokens).substr(0, 61439)));
    }
    // What a large batch leaves behind must not show in the request after it.
    ASSERT_TRUE(module.send(batch_request({"a", "b"})));
    EXPECT_TRUE(support::wait_until([&] { return asked_for(support::batch_body({"a", "b"})); }));
}
