// The WeChat registry, the readers of the API's answers, and the text of a batch query: all without
// a network.
#include <gtest/gtest.h>

#include <random>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "log/log.h"
#include "pool/minute_clock.h"
#include "tests/support/requester.h"
#include "wechat/access_token.h"
#include "wechat/batch_query.h"
#include "wechat/registry.h"

static int allocations_left = -1; // -1: any number

extern "C" void *__real_calloc(size_t count, size_t size);
// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name for the replaced function
extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (allocations_left == 0) {
        return nullptr;
    }
    allocations_left -= allocations_left > 0 ? 1 : 0;
    return __real_calloc(count, size);
}

namespace
{

struct WeChatRegistry : testing::Test {
    ~WeChatRegistry() override
    {
        allocations_left = -1;
        while (wechat_account_chain != nullptr) {
            TO_CHECK_ACCOUNT *account = wechat_account_chain;
            wechat_account_chain = account->next;
            wechat_free_clients(account->clients);
            free(account);
        }
    }
};

int32_t send_in(const std::string &appid, const std::string &openid, int32_t delay,
                const std::string &secret = "secret")
{
    wechat_check_follow_req request = {};
    openid.copy(request.openid, sizeof request.openid);
    appid.copy(request.appid, sizeof request.appid);
    secret.copy(request.appsecret, sizeof request.appsecret);
    request.delay = delay;
    const std::string message = support::message(
        PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, std::string((const char *)&request, sizeof request));
    return wechat_req_msg_proc(message.data(), nullptr, 0);
}

std::vector<std::string> openids(const TO_CHECK_CLIENT *clients)
{
    std::vector<std::string> all;
    for (; clients != nullptr; clients = clients->next) {
        all.emplace_back(clients->openid);
    }
    return all;
}

std::string appids()
{
    std::string all;
    for (const TO_CHECK_ACCOUNT *account = wechat_account_chain; account != nullptr;
         account = account->next) {
        all += account->appid + std::string(" ");
    }
    return all;
}

// Checks the order of a list, equal due minutes by arrival, and returns its length.
size_t count_in_order(const TO_CHECK_CLIENT *client)
{
    size_t count = client != nullptr ? 1 : 0;
    for (; client != nullptr && client->next != nullptr; client = client->next, count++) {
        const std::pair<int32_t, int> here = {client->expire_min, atoi(client->openid)};
        const std::pair<int32_t, int> next = {client->next->expire_min, atoi(client->next->openid)};
        EXPECT_LT(here, next);
    }
    return count;
}

TEST_F(WeChatRegistry, ClientsStayInOrderWhateverTheirArrival)
{
    std::mt19937 random(support::seed());
    size_t waiting = 0;
    for (int arrival = 0; arrival < 10000; arrival++, waiting++) {
        ASSERT_EQ(send_in("app", std::to_string(arrival), (int32_t)(random() % 300) - 10), 0);
        if (arrival % 500 != 499) {
            continue;
        }
        const int32_t minute = pelkin_cur_minute() + (int32_t)(random() % 150);
        TO_CHECK_CLIENT *due = wechat_detach_due_clients(wechat_account_chain, minute);
        waiting -= count_in_order(due);
        for (const TO_CHECK_CLIENT *client = due; client != nullptr; client = client->next) {
            ASSERT_LE(client->expire_min, minute);
        }
        wechat_free_clients(due);
        ASSERT_EQ(count_in_order(wechat_account_chain->clients), waiting + 1);
        ASSERT_GT(wechat_account_chain->clients->expire_min, minute);
    }
}

TEST_F(WeChatRegistry, DelayBeyondTheClockSaturates)
{
    ASSERT_EQ(send_in("app", "late", INT32_MAX), 0);
    ASSERT_EQ(send_in("app", "early", INT32_MIN), 0);
    const TO_CHECK_CLIENT *first = wechat_account_chain->clients;
    EXPECT_EQ(openids(first), (std::vector<std::string>{"early", "late"}));
    EXPECT_EQ(first->next->expire_min, INT32_MAX);
    EXPECT_LE(first->expire_min, INT32_MIN + pelkin_cur_minute());
}

TEST_F(WeChatRegistry, OnlyANewSecretExpiresTheToken)
{
    ASSERT_EQ(send_in("app", "a", 1, "one"), 0);
    const int32_t start = wechat_account_chain->token_expire_min;
    wechat_account_chain->token_expire_min = INT32_MAX;
    ASSERT_EQ(send_in("other", "b", 1, "two"), 0);
    ASSERT_EQ(send_in("app", "a", 1, "one"), 0);
    const TO_CHECK_ACCOUNT *account = wechat_account_chain->next;
    EXPECT_EQ(account->token_expire_min, INT32_MAX);
    ASSERT_EQ(send_in("app", "a", 1, "two"), 0);
    EXPECT_STREQ(account->appsecret, "two");
    EXPECT_GE(account->token_expire_min, start);
    EXPECT_LE(account->token_expire_min, pelkin_cur_minute());
    EXPECT_EQ(openids(account->clients), (std::vector<std::string>{"a", "a", "a"}));
    EXPECT_EQ(appids(), "other app ");
}

TEST_F(WeChatRegistry, UnterminatedFieldsEndAtTheirWidth)
{
    const std::string full(129, 'x');
    ASSERT_EQ(send_in(full, full.substr(0, 32), 0, full), 0);
    ASSERT_EQ(send_in(full, "second", 0, full.substr(0, 128)), 0);
    EXPECT_EQ(appids(), full.substr(0, 128) + " ") << "the same account both times";
    EXPECT_EQ(wechat_account_chain->appsecret, full.substr(0, 128));
    EXPECT_EQ(openids(wechat_account_chain->clients),
              (std::vector<std::string>{full.substr(0, 31), "second"}));
}

TEST_F(WeChatRegistry, ShortPayloadIsRefused)
{
    for (const auto &[length, expected] : {std::pair{0, -1}, {299, -1}, {300, 0}, {301, 0}}) {
        const std::string message =
            support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, std::string((size_t)length, 'x'));
        EXPECT_EQ(wechat_req_msg_proc(message.data(), nullptr, 0), expected) << length;
    }
    EXPECT_EQ(openids(wechat_account_chain->clients).size(), 2u);
}

TEST_F(WeChatRegistry, OutOfMemoryDropsTheRequestAndFreesTheMutex)
{
    allocations_left = 0;
    EXPECT_EQ(send_in("app", "a", 0), -1);
    EXPECT_EQ(wechat_account_chain, nullptr);
    allocations_left = 1;
    EXPECT_EQ(send_in("app", "a", 0), -1);
    EXPECT_EQ(appids(), "app ");
    EXPECT_EQ(wechat_account_chain->clients, nullptr);
    allocations_left = -1;
    EXPECT_EQ(send_in("app", "a", 0), 0);
}

TEST_F(WeChatRegistry, OldestIdleAccountsBeyondElevenGoAndBusyOnesStay)
{
    for (int i = 0; i < 15; i++) {
        ASSERT_EQ(send_in(std::to_string(i), "a", i == 0 || i == 7 ? 60 : 0), 0);
    }
    for (TO_CHECK_ACCOUNT *account = wechat_account_chain; account != nullptr;
         account = account->next) {
        wechat_free_clients(wechat_detach_due_clients(account, pelkin_cur_minute()));
    }
    wechat_delete_idle_account();
    EXPECT_EQ(appids(), "14 13 12 11 10 9 8 7 6 5 4 3 0 ") << "of thirteen idle ones 1 and 2 gone";
}

TEST(WeChatTokenAnswer, IsReadOnlyInItsExactForm)
{
    const std::string longest(512, 't');
    const struct {
        std::string answer;
        std::string token; // "": unreadable
        int32_t expires_in;
    } cases[] = {
        {R"({"access_token":"tok","expires_in":7200})", "tok", 7200},
        {R"({"access_token":"tok","expires_in": -60})", "tok", -60},
        {R"({"access_token":"tok","expires_in":99999999999999999999})", "tok", INT32_MAX},
        {R"({"access_token":"tok","expires_in":-2147483649)", "tok", INT32_MIN},
        {R"({"access_token":")" + longest + R"(","expires_in":600})", longest, 600},
        {R"({"access_token":")" + longest + R"(t","expires_in":600})", "", 0},
        {R"({"access_token":"","expires_in":7200})", "", 0},
        {R"({"expires_in":7200,"access_token":"tok"})", "", 0},
        {R"({ "access_token":"tok","expires_in":7200})", "", 0},
        {R"({"access_token":"tok", "expires_in":7200})", "", 0},
        {R"({"access_token":"tok","expires_in":"7200"})", "", 0},
        {R"({"access_token":"tok)", "", 0},
        {R"({"errcode":40013,"errmsg":"invalid appid"})", "", 0},
        {"", "", 0},
    };
    for (const auto &c : cases) {
        char token[WECHAT_ACCESS_TOKEN_SIZE];
        int32_t expires_in = 0;
        const int32_t rc = wechat_read_token_answer(c.answer.c_str(), token, &expires_in);
        ASSERT_EQ(rc, c.token.empty() ? -1 : 0) << c.answer;
        if (rc == 0) {
            EXPECT_EQ(token, c.token);
            EXPECT_EQ(expires_in, c.expires_in) << c.answer;
        }
    }
}

TEST(WeChatTokenAnswer, ExpiryNeitherOverflowsNorRoundsUp)
{
    EXPECT_EQ(wechat_token_expire_min(1000, 7200), 1110);
    EXPECT_EQ(wechat_token_expire_min(1000, 659), 1000);
    EXPECT_EQ(wechat_token_expire_min(1000, 600), 1000);
    EXPECT_EQ(wechat_token_expire_min(1000, -119), 989);
    EXPECT_EQ(wechat_token_expire_min(INT32_MAX, INT32_MAX), INT32_MAX);
    EXPECT_EQ(wechat_token_expire_min(0, INT32_MIN), INT32_MIN / 60 - 10);
}

// The clients o1 (twice), o2 and one whose openid fills its field.
struct WeChatBatchAnswer : testing::Test {
    WeChatBatchAnswer()
    {
        const std::string names[] = {"o1", "o1", "o2", std::string(31, 'o')};
        for (size_t i = 0; i < 4; i++) {
            names[i].copy(clients[i].openid, names[i].size());
            clients[i].mac[5] = (uint8_t)(i + 1);
            clients[i].next = i < 3 ? &clients[i + 1] : nullptr;
        }
        pelkin_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    ~WeChatBatchAnswer() override
    {
        (void)close(pelkin_sock);
        pelkin_sock = -1;
    }
    // The last address bytes of what the station manager has been asked to delete.
    std::string deleted() const
    {
        std::string all;
        for (auto request = kivren.receive(0); request; request = kivren.receive(0)) {
            EXPECT_EQ(request->size(), 18u);
            all += std::to_string(request->back()) + " ";
        }
        return all;
    }

    TO_CHECK_CLIENT clients[4] = {};
    support::Requester kivren{KIVREN_SOCKET_PATH};
};

TEST_F(WeChatBatchAnswer, DeletesWhoIsReportedAndNobodyElse)
{
    const std::string start = R"({"user_info_list":[)";
    const std::string longest(31, 'o');
    const struct {
        std::string answer;
        int32_t rc;
        std::string deleted;
    } cases[] = {
        {start + R"({"subscribe":1,"openid":"o1"},{"subscribe":0,"openid":"o2","x":[1]}]})", 0,
         "3 "},
        {start + R"({"subscribe":0,"openid":"o1"},{"subscribe":0,"openid":"O2"}]})", 0, "1 "},
        {start + R"({"subscribe":0,"openid":")" + longest + R"("}]})", 0, "4 "},
        {start + R"({"subscribe":0,"openid":")" + longest + R"(o"}]})", 0, ""},
        {start + R"({"subscribe":0,"openid":")" + std::string(200, 'o') + R"("}]})", 0, ""},
        {start + R"({"subscribe":4294967296,"openid":"o1"},{"subscribe":-1,"openid":"o2"}]})", 0,
         ""},
        {start + R"({"openid":"o1","subscribe":0},{},{"subscribe":0,"openid":"o2"}]})", 0, "3 "},
        {start + R"({"subscribe":0,"language":"en","openid":"o1"},{"subscribe":"0"}]})", 0, ""},
        {start + R"({"subscribe":0,"openid":""},{"subscribe":0"openid":"o1"}]})", 0, ""},
        {start + R"({"subscribe": 0 , "openid":"o1"},{ "subscribe":0,"openid":"o2)", -1, "1 "},
        {start + R"({"subscribe":0,"openid":"o2"},{)", -1, "3 "},
        {start + "]}", -1, ""},
        {R"({"errcode":40001,"errmsg":"invalid credential"})", -1, ""},
        {R"([{"subscribe":0,"openid":"o1"}])", -1, ""},
        {"", -1, ""},
    };
    for (auto c : cases) {
        const std::string shown = c.answer;
        EXPECT_EQ(wechat_evaluate_batch_answer(c.answer.data(), clients), c.rc) << shown;
        EXPECT_EQ(deleted(), c.deleted) << shown;
    }
}

// 150,000 entries, each with its own message: time must grow with the length only.
TEST_F(WeChatBatchAnswer, CrowdedAnswerIsReadInOneGo)
{
    tu_trace_level = 0; // nothing printed
    tu_pelkin_fltlog = 1;
    std::string answer = R"({"user_info_list":[)";
    while (answer.size() < 299998 - 40) {
        answer += "{}";
    }
    answer += R"({"subscribe":0,"openid":"o2"})";
    EXPECT_EQ(wechat_evaluate_batch_answer(answer.data(), clients), 0);
    EXPECT_EQ(deleted(), "3 ");
    tu_trace_level = TU_LEVEL_WARNING;
}

TEST(WeChatBatchQuery, BodyIsExactAndNothingOfALargerOneStays)
{
    static http_task task;
    std::vector<TO_CHECK_CLIENT> clients(101);
    for (size_t i = 0; i < clients.size(); i++) {
        memset(clients[i].openid, 'x', WECHAT_OPENID_SIZE - 1);
        clients[i].next = i + 1 < clients.size() ? &clients[i + 1] : nullptr;
    }
    wechat_prepare_batch_task(&task, "TOKEN");
    EXPECT_EQ(wechat_write_batch_body(&task, clients.data()), &clients[100]);
    EXPECT_EQ(strlen((const char *)task.data), 17 + 100 * 61 + 99 + 3u);
    EXPECT_EQ(wechat_write_batch_body(&task, &clients[99]), nullptr);
    const std::string x(31, 'x');
    EXPECT_EQ(std::string((const char *)task.data), R"({ "user_list": [ {"openid": ")" + x +
                                                        R"(","lang": "zh_CN"},{"openid": ")" + x +
                                                        R"(","lang": "zh_CN"} ]})");
}

} // namespace
