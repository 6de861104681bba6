// Passes of the follow check against a TLS server behind the API's host name. The server's scripts
// play the main thread too where something must happen during an exchange.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <stdlib.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "http/connection.h"
#include "pool/minute_clock.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/follow_check.h"

namespace
{

const std::string HOST = PELKIN_WECHAT_API_HOST;
const std::string HEAD_LINES = " HTTP/1.0\r\nHost: " + HOST +
                               "\r\nConnection: keep-alive\r\nUser-Agent: pelkin\r\nContent-type: "
                               "application/x-www-form-urlencoded\r\nContent-Length: ";
const std::string TOKEN_ANSWER = R"({"access_token":"TOK","expires_in":7200})";

void register_client(const std::string &openid, const std::string &appid = "app",
                     const std::string &secret = "secret", int32_t delay = 0)
{
    wechat_check_follow_req request = {};
    request.mac[5] = (uint8_t)atoi(openid.c_str() + 1);
    openid.copy(request.openid, sizeof request.openid);
    appid.copy(request.appid, sizeof request.appid);
    secret.copy(request.appsecret, sizeof request.appsecret);
    request.delay = delay;
    const std::string message = support::message(
        PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, std::string((const char *)&request, sizeof request));
    EXPECT_EQ(wechat_req_msg_proc(message.data(), nullptr, 0), 0);
}

std::string numbered(std::string text, int number)
{
    return text += std::to_string(number);
}

std::string entry(int subscribe, const std::string &openid)
{
    return numbered(R"({"subscribe":)", subscribe) + R"(,"openid":")" + openid + "\"}";
}

std::string user_info(const std::string &entries)
{
    return R"({"user_info_list":[)" + entries + "]}";
}

std::string batch_body(int first, int last)
{
    std::string body;
    for (int i = first; i <= last; i++) {
        body += (body.empty() ? R"({ "user_list": [ )" : ",");
        body += numbered(R"({"openid": "o)", i) + R"(","lang": "zh_CN"})";
    }
    return body + " ]}";
}

// `body` makes the answer to each request; "" resets the connection instead.
struct WeChatCheck : testing::Test {
    static void SetUpTestSuite()
    {
        support::write_file("/etc/hosts", "127.0.0.1 localhost " + HOST + "\n");
        pelkin_ctx = pelkin_create_ctx();
        pelkin_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    static void TearDownTestSuite()
    {
        SSL_CTX_free(pelkin_ctx);
        (void)close(pelkin_sock);
    }
    ~WeChatCheck() override
    {
        server.stop();
        while (wechat_account_chain != nullptr) {
            TO_CHECK_ACCOUNT *account = wechat_account_chain;
            wechat_account_chain = account->next;
            wechat_free_clients(account->clients);
            free(account);
        }
    }
    void answer_with(std::function<std::string(const std::string &request)> with)
    {
        const std::lock_guard<std::mutex> lock(guard);
        body = std::move(with);
    }
    std::string take(const std::string &request)
    {
        const std::lock_guard<std::mutex> lock(guard);
        requests.push_back(request);
        return body(request);
    }
    std::vector<std::string> seen()
    {
        const std::lock_guard<std::mutex> lock(guard);
        return requests;
    }
    void serve(support::Connection &connection)
    {
        const std::string text = take(connection.read_request());
        if (text.empty()) {
            connection.reset();
        } else if (connection.send(support::answer(text))) {
            EXPECT_TRUE(connection.wait_for_close()) << "a second request on one connection";
        }
    }
    // The last address bytes of what the station manager has been asked to delete.
    std::string deleted() const
    {
        std::string all;
        for (auto request = kivren.receive(0); request; request = kivren.receive(0)) {
            all += std::to_string((uint8_t)request->back()) + " ";
        }
        return all;
    }

    std::mutex guard; // of the two below
    std::function<std::string(const std::string &request)> body;
    std::vector<std::string> requests;
    support::Requester kivren{KIVREN_SOCKET_PATH};
    support::Server server{{.tls = true}, [this](support::Connection &c) { serve(c); }};
};

bool is_token_request(const std::string &request)
{
    return request.starts_with("GET ");
}

TEST_F(WeChatCheck, DueClientsGoInThreeExactBatchesAndOthersWait)
{
    for (int i = 1; i <= 250; i++) {
        register_client(numbered("o", i));
    }
    register_client("o251", "app", "secret", 60);
    answer_with([](const std::string &request) {
        // The first batch already reports a client of the last one.
        return is_token_request(request) ? TOKEN_ANSWER
               : request.find(R"("o1")") != std::string::npos
                   ? user_info(entry(1, "o1") + "," + entry(0, "o249") + "," + entry(0, "o7"))
                   : user_info(entry(1, "o101"));
    });
    EXPECT_EQ(wechat_check_clients_of_all_accounts(), 0);
    const std::string post = "POST /cgi-bin/user/info/batchget?access_token=TOK" + HEAD_LINES;
    std::vector<std::string> expected = {
        "GET /cgi-bin/token?grant_type=client_credential&appid=app&secret=secret" + HEAD_LINES +
        "0\r\n\r\n"};
    for (const std::string &text :
         {batch_body(1, 100), batch_body(101, 200), batch_body(201, 250)}) {
        expected.push_back(numbered(post, (int)text.size()).append("\r\n\r\n").append(text));
    }
    EXPECT_EQ(seen(), expected);
    EXPECT_EQ(server.connections, 4);
    EXPECT_EQ(deleted(), "249 7 ");
    EXPECT_STREQ(wechat_account_chain->clients->openid, "o251");
    EXPECT_EQ(wechat_account_chain->clients->next, nullptr);
}

TEST_F(WeChatCheck, FailuresFreeTheClientsAndDecideWhetherTheTokenStays)
{
    const std::string longest(512, 't');
    const std::string two = entry(0, "o1") + "," + entry(1, "o2");
    std::string large = two;
    while (large.size() < 299900) {
        large.append(",").append(entry(1, "filler"));
    }
    const struct {
        const char *name;
        std::string token_answer;
        std::string batch_answer;
        int requests; // connections, repetitions included
        bool is_token_kept;
        std::string deleted;
    } cases[] = {
        {"good", TOKEN_ANSWER, user_info(two), 2, true, "1 "},
        {"longest token", R"({"access_token":")" + longest + R"(","expires_in":660})",
         user_info(two), 2, true, "1 "},
        {"too long a token", R"({"access_token":")" + longest + R"(t","expires_in":7200})",
         user_info(two), 1, false, ""},
        {"short life", R"({"access_token":"TOK","expires_in":600})", user_info(two), 2, false,
         "1 "},
        {"negative life", R"({"access_token":"TOK","expires_in":-7200})", user_info(two), 2, false,
         "1 "},
        {"token refused", R"({"errcode":40013})", user_info(two), 1, false, ""},
        {"token reset", "", user_info(two), 4, false, ""},
        {"batch refused", TOKEN_ANSWER, R"({"errcode":40001})", 2, false, ""},
        {"batch reset", TOKEN_ANSWER, "", 5, false, ""},
        {"unreadable entry", TOKEN_ANSWER, user_info("{}," + two), 2, true, "1 "},
        {"unterminated entry", TOKEN_ANSWER,
         R"({"user_info_list":[)" + two + R"(,{"subscribe":0,"openid":"o2"])", 2, false, "1 "},
        {"nearly full buffer", TOKEN_ANSWER, user_info(large), 2, true, "1 "},
        {"overfull buffer", TOKEN_ANSWER, user_info(large + "," + entry(0, std::string(200, 'x'))),
         2, false, "1 "},
    };
    for (const auto &c : cases) {
        answer_with([&c](const std::string &request) {
            return is_token_request(request) ? c.token_answer : c.batch_answer;
        });
        const int before = server.connections;
        register_client("o1", c.name);
        register_client("o2", c.name);
        (void)wechat_check_clients_of_all_accounts();
        EXPECT_EQ(server.connections - before, c.requests) << c.name;
        EXPECT_EQ(deleted(), c.deleted) << c.name;
        EXPECT_EQ(wechat_account_chain->clients, nullptr) << c.name;
        EXPECT_EQ(wechat_account_chain->token_expire_min > pelkin_cur_minute(), c.is_token_kept)
            << c.name;
        answer_with({});
    }
}

TEST_F(WeChatCheck, FailedBatchSparesEarlierOnesAndEndsTheList)
{
    for (int i = 1; i <= 201; i++) {
        register_client(numbered("o", i));
    }
    answer_with([](const std::string &request) {
        return is_token_request(request)                      ? TOKEN_ANSWER
               : request.find(R"("o1")") != std::string::npos ? user_info(entry(0, "o1"))
                                                              : R"({"errcode":-1})";
    });
    (void)wechat_check_clients_of_all_accounts();
    EXPECT_EQ(seen().size(), 3u) << "no request for the third batch";
    EXPECT_EQ(deleted(), "1 ");
    EXPECT_EQ(wechat_account_chain->clients, nullptr);
}

TEST_F(WeChatCheck, SecretReplacedDuringARefreshIsUsedByTheNextCheck)
{
    register_client("o1", "app", "old");
    answer_with([](const std::string &request) {
        if (request.find("secret=old") != std::string::npos) {
            register_client("o2", "app", "new"); // hangs if the mutex is held
        }
        return is_token_request(request) ? TOKEN_ANSWER : user_info(entry(0, "o1"));
    });
    (void)wechat_check_clients_of_all_accounts();
    EXPECT_EQ(deleted(), "1 ") << "the token was good for the check at hand";
    (void)wechat_check_clients_of_all_accounts();
    const std::vector<std::string> requests_seen = seen();
    ASSERT_EQ(requests_seen.size(), 4u);
    EXPECT_NE(requests_seen[2].find("secret=new"), std::string::npos);
    EXPECT_NE(requests_seen[3].find(R"("o2")"), std::string::npos);
}

TEST_F(WeChatCheck, RequestsAtFullRateDuringPassesAreAllChecked)
{
    const int clients = 20000;
    std::atomic<int> asked = 0;
    answer_with([&asked](const std::string &request) {
        size_t at = 0;
        while ((at = request.find("\"openid\"", at + 1)) != std::string::npos) {
            asked++;
        }
        return is_token_request(request) ? TOKEN_ANSWER : user_info(entry(1, "o1"));
    });
    std::atomic<bool> finished = false;
    std::thread main_thread([&finished] {
        for (int i = 0; i < clients; i++) {
            register_client(numbered("o", i), numbered("app", i % 200),
                            i % 1000 < 200 ? "odd" : "even");
        }
        finished = true;
    });
    while (!finished) {
        (void)wechat_check_clients_of_all_accounts();
        wechat_delete_idle_account();
    }
    main_thread.join();
    (void)wechat_check_clients_of_all_accounts();
    wechat_delete_idle_account();
    EXPECT_EQ(asked, clients);
    int accounts = 0;
    for (const TO_CHECK_ACCOUNT *a = wechat_account_chain; a != nullptr; a = a->next) {
        accounts++;
    }
    EXPECT_EQ(accounts, WECHAT_IDLE_ACCOUNTS_KEPT);
}

} // namespace
