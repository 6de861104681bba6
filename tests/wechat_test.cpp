// The follow check: what its registry refuses and forgets, and its passes against a TLS server
// behind the API's host name. The server plays the main thread too where something must happen
// during an exchange. What the registry holds and how answers are read is the fuzzers' business.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <random>
#include <set>
#include <stdlib.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/ipc_send.h"
#include "http/connection.h"
#include "log/log.h"
#include "pool/minute_clock.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/access_token.h"
#include "wechat/api_request.h"
#include "wechat/follow_check.h"

static std::atomic<int> allocations_left = INT_MAX;

extern "C" void *__real_calloc(size_t count, size_t size);
// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name for the replaced function
extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    return allocations_left-- > 0 ? __real_calloc(count, size) : nullptr;
}

namespace
{

const std::string HOST = PELKIN_WECHAT_API_HOST;
const std::string REFUSAL = R"({"errcode":40001})";

std::string numbered(std::string text, int number)
{
    return text += std::to_string(number);
}

// Shared by numbers a thousand apart; most fill the field.
std::string openid(int number)
{
    return numbered(std::string(WECHAT_OPENID_SIZE - 4, 'o'), number % 1000);
}

int32_t send_in(int number, const std::string &appid = "app", const std::string &secret = "secret",
                int32_t delay = 0, size_t missing = 0)
{
    wechat_check_follow_req request = {};
    request.mac[4] = (uint8_t)(number >> 8);
    request.mac[5] = (uint8_t)number;
    openid(number).copy(request.openid, sizeof request.openid);
    appid.copy(request.appid, sizeof request.appid);
    secret.copy(request.appsecret, sizeof request.appsecret);
    request.delay = delay;
    const std::string message = support::message(
        PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, support::bytes_of(request, sizeof request - missing));
    return wechat_req_msg_proc(message.data(), nullptr, 0);
}

using Requests = std::vector<std::string>;

std::string token_answer(const std::string &token = "TOK", int expires_in = 7200)
{
    return R"({"access_token":")" + token + numbered(R"(","expires_in":)", expires_in) + "}";
}

std::string entry(int subscribe, const std::string &id)
{
    return numbered(R"({"subscribe":)", subscribe) + R"(,"openid":")" + id + "\"}";
}

std::string user_info(const std::string &entries)
{
    return R"({"user_info_list":[)" + entries + "]}";
}

std::string batch_request(int first, int last)
{
    std::string body;
    for (int i = first; i <= last; i++) {
        body += (body.empty() ? R"({ "user_list": [ )" : ",");
        body += R"({"openid": ")" + openid(i) + R"(","lang": "zh_CN"})";
    }
    body += " ]}";
    return support::request_text(true, HOST, "/cgi-bin/user/info/batchget?access_token=TOK", body);
}

std::string token_request(const std::string &secret)
{
    return support::request_text(false, HOST, "/cgi-bin/token",
                                 "grant_type=client_credential&appid=app&secret=" + secret);
}

// Newest first, a space behind each.
std::string appids()
{
    std::string all;
    for (auto *account = wechat_account_chain; account != nullptr; account = account->next) {
        all += account->appid + std::string(" ");
    }
    return all;
}

// Checks the order of a list, equal due minutes by number, and returns its length.
size_t count_in_order(const TO_CHECK_CLIENT *client)
{
    std::pair<int32_t, int> before = {INT32_MIN, -1};
    size_t count = 0;
    for (; client != nullptr; client = client->next, count++) {
        const std::pair<int32_t, int> here = {client->expire_min,
                                              client->mac[4] << 8 | client->mac[5]};
        EXPECT_LT(before, here);
        before = here;
    }
    return count;
}

// As one does who knows the chain but not its express lane.
TO_CHECK_CLIENT *detach_by_hand(TO_CHECK_ACCOUNT *account, int32_t minute)
{
    TO_CHECK_CLIENT *due = nullptr;
    TO_CHECK_CLIENT **end = &due;
    while (account->clients != nullptr && account->clients->expire_min <= minute) {
        *end = account->clients;
        end = &(*end)->next;
        account->clients = *end;
    }
    *end = nullptr;
    return due;
}

struct WeChat : testing::Test {
    WeChat()
    {
        support::write_file("/etc/hosts", "127.0.0.1 localhost " + HOST + "\n");
        SSL_CTX *context = pelkin_create_ctx();
        wechat_use_context(context);
        SSL_CTX_free(context);
        pelkin_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        tu_trace_level = 0; // nothing printed
        tu_pelkin_fltlog = 1;
    }
    ~WeChat() override
    {
        while (wechat_account_chain != nullptr) {
            TO_CHECK_ACCOUNT *account = wechat_account_chain;
            wechat_account_chain = account->next;
            wechat_free_clients(account->clients);
            free(account);
        }
        (void)close(pelkin_sock);
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

    support::Requester kivren{KIVREN_SOCKET_PATH};
};

// One pass, and the requests that the server got, each over a connection of its own. `answer_to`
// makes the answer to each; "" resets the connection instead.
template <class AnswerTo> Requests check(const AnswerTo &answer_to)
{
    Requests requests; // there is one connection at a time
    support::Server server({.tls = true}, [&](support::Connection &connection) {
        requests.push_back(connection.read_request());
        const std::string text = answer_to(requests.back());
        if (text.empty()) {
            connection.reset();
        } else if (connection.send(support::answer(text))) {
            EXPECT_TRUE(connection.wait_for_close()) << "a second request on one connection";
        }
    });
    EXPECT_EQ(wechat_check_clients_of_all_accounts(), 0);
    server.stop();
    EXPECT_EQ((size_t)server.connections, requests.size());
    return requests;
}

TEST_F(WeChat, RequestThatIsShortOrFindsNoMemoryIsRefusedAndFreesTheMutex)
{
    EXPECT_EQ(send_in(1, "app", "secret", 0, 1), -1);
    allocations_left = 0;
    EXPECT_EQ(send_in(1), -1);
    EXPECT_EQ(wechat_account_chain, nullptr);
    allocations_left = 1;
    EXPECT_EQ(send_in(1), -1);
    EXPECT_EQ(wechat_account_chain->clients, nullptr);
    allocations_left = INT_MAX;
    EXPECT_EQ(send_in(1), 0);
    EXPECT_EQ(appids(), "app ");
}

TEST_F(WeChat, ClientsStayInOrderWhateverTheirArrival)
{
    std::mt19937 random(support::seed());
    size_t waiting = 0;
    for (int arrival = 1; arrival <= 10000; arrival++) {
        ASSERT_EQ(send_in(arrival, "app", "secret", (int32_t)(random() % 300) - 10), 0);
        waiting++;
        if (arrival % 500 == 0) {
            const int32_t minute = pelkin_cur_minute() + (int32_t)(random() % 150);
            const auto detach = arrival % 1000 == 0 ? detach_by_hand : wechat_detach_due_clients;
            TO_CHECK_CLIENT *due = detach(wechat_account_chain, minute);
            waiting -= count_in_order(due);
            for (const TO_CHECK_CLIENT *client = due; client != nullptr; client = client->next) {
                ASSERT_LE(client->expire_min, minute);
            }
            wechat_free_clients(due);
            ASSERT_EQ(count_in_order(wechat_account_chain->clients), waiting);
            ASSERT_GT(wechat_account_chain->clients->expire_min, minute);
        }
    }
}

TEST_F(WeChat, OldestIdleAccountsBeyondElevenGoAndBusyOnesStay)
{
    for (int i = 0; i < 15; i++) {
        (void)send_in(1, numbered("", i), "secret", i == 0 || i == 7 ? 60 : 0);
    }
    (void)check([](const std::string &) { return REFUSAL; });
    wechat_delete_idle_account();
    EXPECT_EQ(appids(), "14 13 12 11 10 9 8 7 6 5 4 3 0 ") << "of thirteen idle ones 1 and 2 gone";
    EXPECT_EQ(std::string(tu_tmpbuf).rfind("to delete idle appid(1,", 0), 0u) << tu_tmpbuf;
}

TEST_F(WeChat, EveryAccountIsFoundHoweverManyComeAndGoAndWhoeverLinkedIt)
{
    const int accounts = 3000;
    for (int i = 0; i < accounts; i++) {
        EXPECT_EQ(send_in(1, numbered("", i), "secret", i % 3 == 0 ? 60 : 0), 0);
    }
    for (auto *account = wechat_account_chain; account != nullptr; account = account->next) {
        wechat_free_clients(wechat_detach_due_clients(account, pelkin_cur_minute()));
    }
    wechat_delete_idle_account();
    EXPECT_EQ(std::ranges::count(appids(), ' '), accounts / 3 + WECHAT_IDLE_ACCOUNTS_KEPT);
    auto *linked = (TO_CHECK_ACCOUNT *)calloc(1, sizeof(TO_CHECK_ACCOUNT));
    linked->appid[0] = 'x';
    linked->next = wechat_account_chain;
    wechat_account_chain = linked;
    EXPECT_EQ(send_in(1, "x"), 0);
    for (int i = 0; i < accounts; i++) {
        EXPECT_EQ(send_in(1, numbered("", i)), 0);
    }
    std::set<std::string> ids;
    for (auto *account = wechat_account_chain; account != nullptr; account = account->next) {
        EXPECT_TRUE(ids.insert(account->appid).second) << account->appid << " stands there twice";
        EXPECT_NE(account->clients, nullptr);
    }
    EXPECT_EQ(ids.size(), accounts + 1u);
}

TEST(WeChatToken, ExpiryNeitherOverflowsNorRoundsUp)
{
    EXPECT_EQ(wechat_token_expire_min(1000, 7200), 1110);
    EXPECT_EQ(wechat_token_expire_min(1000, 659), 1000);
    EXPECT_EQ(wechat_token_expire_min(1000, 600), 1000);
    EXPECT_EQ(wechat_token_expire_min(1000, -119), 989);
    EXPECT_EQ(wechat_token_expire_min(INT32_MAX, INT32_MAX), INT32_MAX);
    EXPECT_EQ(wechat_token_expire_min(0, INT32_MIN), INT32_MIN / 60 - 10);
}

TEST_F(WeChat, DueClientsGoInExactBatchesUntilOneFailsAndOthersWait)
{
    EXPECT_EQ(send_in(251, "app", "secret", 60), 0);
    const Requests all = {token_request("secret"), batch_request(1, 100), batch_request(101, 200),
                          batch_request(201, 250)};
    // The first batch already reports a client of the last one.
    const std::string first =
        entry(1, openid(1)) + "," + entry(0, openid(249)) + "," + entry(0, openid(7));
    for (const bool fails : {false, true}) {
        for (int i = 1; i <= 250; i++) {
            EXPECT_EQ(send_in(i), 0);
        }
        const Requests requests = check([&](const std::string &request) {
            return request == all[0]   ? token_answer()
                   : request == all[1] ? user_info(first)
                   : fails             ? REFUSAL
                                       : user_info(entry(1, openid(101)));
        });
        EXPECT_EQ(requests, fails ? Requests(all.begin() + 1, all.begin() + 3) : all);
        EXPECT_EQ(deleted(), "249 7 ");
        EXPECT_STREQ(wechat_account_chain->clients->openid, openid(251).c_str());
        EXPECT_EQ(wechat_account_chain->clients->next, nullptr);
    }
}

TEST_F(WeChat, FailuresFreeTheClientsAndDecideWhetherTheTokenStays)
{
    const std::string longest(512, 't');
    const std::string two = entry(0, openid(1)) + "," + entry(1, openid(2));
    // Each entry has its own message: the time must grow with the length only.
    std::string crowd = two;
    while (crowd.size() < 299850) {
        crowd += "{}";
    }
    const struct {
        const char *name;
        std::string token_answer;
        std::string batch_answer;
        size_t requests; // repetitions included
        bool is_token_kept;
        std::string deleted;
    } cases[] = {
        {"longest token", token_answer(longest, 660), user_info(two), 2, true, "1 "},
        {"too long a token", token_answer(longest + "t"), user_info(two), 1, false, ""},
        {"short life", token_answer("TOK", 600), user_info(two), 2, false, "1 "},
        {"token refused", REFUSAL, user_info(two), 1, false, ""},
        {"token reset", "", user_info(two), 4, false, ""},
        {"batch refused", token_answer(), REFUSAL, 2, false, ""},
        {"batch reset", token_answer(), "", 5, false, ""},
        {"no entries", token_answer(), user_info(""), 2, false, ""},
        {"no end", token_answer(),
         R"({"user_info_list":[)" + two + R"(,{"subscribe":0,"openid":")" + openid(2) + "\"]", 2,
         false, "1 "},
        {"nearly full", token_answer(), user_info(crowd + "," + entry(0, openid(3))), 2, true,
         "1 3 "},
        {"overfull", token_answer(), user_info(crowd + "," + entry(0, std::string(200, 'x'))), 2,
         false, "1 "},
    };
    for (const auto &c : cases) {
        for (const int number : {1, 2, 3, 1001}) {
            EXPECT_EQ(send_in(number, c.name), 0);
        }
        const size_t requests =
            check([&c](const std::string &request) {
                return request.starts_with("GET ") ? c.token_answer : c.batch_answer;
            }).size();
        EXPECT_EQ(requests, c.requests) << c.name;
        EXPECT_EQ(deleted(), c.deleted) << c.name;
        EXPECT_EQ(wechat_account_chain->clients, nullptr) << c.name;
        EXPECT_EQ(wechat_account_chain->token_expire_min > pelkin_cur_minute(), c.is_token_kept)
            << c.name;
    }
}

TEST_F(WeChat, OnlyANewSecretEndsTheTokenAlsoDuringARefresh)
{
    const auto answer_to = [](const std::string &request) {
        if (request.find("secret=old") != std::string::npos) {
            (void)send_in(2, "app", "new"); // hangs if the mutex is held
        }
        return request.starts_with("GET ") ? token_answer() : user_info(entry(0, openid(1)));
    };
    (void)send_in(1, "app", "old");
    EXPECT_EQ(check(answer_to), (Requests{token_request("old"), batch_request(1, 1)}));
    EXPECT_EQ(deleted(), "1 ") << "the token was good for the check at hand";
    EXPECT_EQ(check(answer_to), (Requests{token_request("new"), batch_request(2, 2)}));
    (void)send_in(3, "app", "new");
    EXPECT_EQ(check(answer_to), Requests{batch_request(3, 3)});
    (void)send_in(4, "app", "newer");
    EXPECT_EQ(check(answer_to), (Requests{token_request("newer"), batch_request(4, 4)}));
}

TEST_F(WeChat, RequestsAtFullRateDuringPassesAreAllChecked)
{
    const int clients = 20000;
    std::atomic<int> asked = 0;
    std::atomic<bool> finished = false;
    std::thread main_thread([&finished] {
        for (int i = 0; i < clients; i++) {
            (void)send_in(i, numbered("app", i % 200), i % 1000 < 200 ? "odd" : "even");
        }
        finished = true;
    });
    for (bool is_last = false; !is_last;) {
        is_last = finished;
        (void)check([&asked](const std::string &request) {
            for (size_t at = 0; (at = request.find("\"openid\"", at + 1)) != std::string::npos;) {
                asked++;
            }
            return request.starts_with("GET ") ? token_answer() : user_info(entry(1, openid(1)));
        });
        wechat_delete_idle_account();
    }
    main_thread.join();
    EXPECT_EQ(asked, clients);
    EXPECT_EQ(std::ranges::count(appids(), ' '), WECHAT_IDLE_ACCOUNTS_KEPT);
}

} // namespace
