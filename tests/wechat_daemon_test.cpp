// The follow check in the running daemon, at its own pace: one test, since a pass takes 30 seconds
// to come and a silent server ten more.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "core/daemon/monitor.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/wechat_msg.h"

namespace
{

const std::string HOST = PELKIN_WECHAT_API_HOST;
const int ACCOUNTS = 200;
const int CLIENTS = 20000;
const int FIRST_PASS_S = 60;     // at the latest
const size_t CLIENTS_KIB = 1200; // held by the records, at the least
// That a thread's first exchanges leave behind, at the most; the two answer buffers are cleared
// whole.
const size_t THREAD_KIB = 768 + 360;
const int SILENCE_S = 100; // ten seconds, generously

std::string check_follow(const std::string &appid, int number)
{
    return support::check_follow(
        support::follow_request(std::string(1, (char)number), std::to_string(number), appid));
}

// The API's server, and anything else that is asked of its host. Client 0 of an account has not
// subscribed. To the second batch of the account "silent" it says nothing once, and then refuses.
struct Api {
    void serve(support::Connection &connection)
    {
        const std::string request = connection.read_request();
        std::string body = "pong";
        if (support::contains(request, "/cgi-bin/token?")) {
            const size_t at = request.find("appid=") + 6;
            body = R"({"access_token":"for-)" + request.substr(at, request.find('&', at) - at) +
                   R"(","expires_in":7200})";
        } else if (support::contains(request, "/batchget?")) {
            const size_t before = asked;
            for (size_t at = request.find("{\"openid\""); at != std::string::npos;
                 at = request.find("{\"openid\"", at + 1)) {
                asked++;
            }
            body = R"({"user_info_list":[{"subscribe":0,"openid":"0"}]})";
            if (support::contains(request, "for-silent") && asked - before < 100) {
                if (++silent_connections == 1) {
                    (void)connection.wait_for_close();
                    return;
                }
                body = "refused";
            }
            last_asked = last_asked || support::contains(request, "for-last");
        }
        if (connection.send(support::answer(body))) {
            (void)connection.wait_for_close();
        }
    }

    std::atomic<size_t> asked = 0;
    std::atomic<int> silent_connections = 0;
    std::atomic<bool> last_asked = false;
    support::Server server{{.tls = true}, [this](support::Connection &c) { serve(c); }};
};

// What the main thread answers, whatever the follow check is doing.
void expect_main_loop_alive(const support::Requester &requester)
{
    EXPECT_EQ(requester.ask({.url = "https://" + HOST + "/"}), "pong");
    ASSERT_TRUE(requester.send(support::message(VOKMON_MSG_PROBE, ""), PELKIN_MONITOR_SOCKET_PATH));
    EXPECT_EQ(requester.receive().value_or("").size(), sizeof(ipc_msg_hdr));
}

TEST(WeChatDaemon, ChecksThousandsWithASmallStackAndASilentServer)
{
    support::write_file("/etc/hosts", "127.0.0.1 localhost " + HOST + "\n");
    Api api;
    const support::Requester kivren(KIVREN_SOCKET_PATH);
    const support::Requester requester;
    // The thread sanitizer alone takes more than 512 KiB of every thread's stack.
    const std::string stack_kib = support::is_sanitized() ? "8192" : "256";
    support::Daemon daemon({"bash", "-c", "ulimit -s " + stack_kib + "; exec PELKIN"});
    expect_main_loop_alive(requester);
    const size_t start_kib = support::resident_kib(daemon.pid);

    // The latest account is checked first.
    ASSERT_TRUE(requester.send(check_follow("last", 0)));
    for (int i = 0; i < 150; i++) {
        ASSERT_TRUE(requester.send(check_follow("silent", i)));
    }
    for (int i = 0; i < CLIENTS; i++) {
        ASSERT_TRUE(requester.send(check_follow(std::to_string(i % ACCOUNTS), 1 + i % 250)));
    }
    expect_main_loop_alive(requester);
    const size_t full_kib = support::resident_kib(daemon.pid);

    EXPECT_TRUE(support::wait_until([&api] { return api.asked > 0; }, FIRST_PASS_S));
    expect_main_loop_alive(requester);
    EXPECT_TRUE(support::wait_until([&api] { return api.silent_connections > 0; }, FIRST_PASS_S));
    EXPECT_EQ(api.asked, CLIENTS + 150u);
    expect_main_loop_alive(requester);
    EXPECT_TRUE(support::wait_until([&api] { return api.last_asked.load(); }, SILENCE_S));
    EXPECT_EQ(api.silent_connections, 2);
    for (int i = 0; i < 2; i++) { // of "silent" and of "last"
        EXPECT_EQ(kivren.receive(), support::removal(std::string(6, '\0')));
    }
    EXPECT_EQ(kivren.receive(0), std::nullopt);
    if (!support::is_sanitized()) {
        EXPECT_GT(full_kib, start_kib + CLIENTS_KIB);
        // Once the last connection and client have gone, too.
        EXPECT_TRUE(support::wait_until([&] {
            return support::resident_kib(daemon.pid) < start_kib + THREAD_KIB;
        })) << start_kib
            << " KiB before, " << full_kib << " full, " << support::resident_kib(daemon.pid)
            << " after";
    }
}

} // namespace
