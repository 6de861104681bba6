// Token verification as seen from its two ends: the text for the verification server, and what the
// station manager's socket receives for an answer.
#include <gtest/gtest.h>

#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "log/log.h"
#include "social/fbauth.h"
#include "social/reauth_answer.h"
#include "social/reauth_report.h"
#include "social/reauth_request.h"
#include "social/station_removal.h"
#include "tests/support/requester.h"
#include "tests/support/social_batch.h"

using support::batch_answer;
using support::batch_body;
using support::make_batch;
using support::make_tokens;
using support::Report;
using support::report_bytes;

static const size_t HEAD_SIZE = support::BATCH_HEAD_SIZE;
static const size_t STA_SIZE = support::BATCH_STA_SIZE;

static const reauth_attr *batch_of(const std::string &bytes)
{
    return reinterpret_cast<const reauth_attr *>(bytes.data());
}

static std::string build(const std::string &batch, size_t size = PELKIN_MSG_MAX)
{
    std::vector<char> out(size);
    EXPECT_EQ(pelkin_build_reauth_data(out.data(), size, batch_of(batch)), 0);
    return out.data();
}

TEST(ReauthBody, EveryStationOnceAndACommaBetween)
{
    for (const int count : {1, 3, REAUTH_STA_MAX}) {
        const std::vector<std::string> tokens = make_tokens(count, 8);
        EXPECT_EQ(build(make_batch(tokens)), batch_body(tokens));
    }
    for (const int32_t below_one : {0, -1, INT32_MIN}) {
        EXPECT_EQ(build(make_batch({"a", "b"}, below_one)), batch_body({"a"}));
    }
}

TEST(ReauthBody, TooLongATextEndsAtEachLimit)
{
    const std::vector<std::string> tokens = make_tokens(REAUTH_STA_MAX, 64);
    const std::string whole = batch_body(tokens);
    const size_t entries = whole.find('{') + 1;
    EXPECT_EQ(build(make_batch(tokens)), whole.substr(0, PELKIN_MSG_MAX - 1));
    EXPECT_EQ(build(make_batch(tokens), 90000), whole.substr(0, entries + 65535) + "}");
    EXPECT_EQ(build(make_batch(tokens), 10), "secret=s&");
}

TEST(ReauthBody, FieldsEndWithoutTheirNul)
{
    EXPECT_EQ(build(make_batch({"a"}, 1, std::string(128, '&'))).find("&tokens="),
              strlen("secret=") + 384); // three for each of 128
    const std::string batch = make_batch({std::string(65, 'T')}, 1, std::string(129, 'S'));
    const std::string body = build(batch);
    EXPECT_EQ(body.substr(0, body.find(":{")),
              "secret=" + std::string(129, 'S') + "&tokens={\"" + std::string(65, 'T') + "\"");
}

TEST(ReauthBatch, NumberOfStationsIsCutToWhatArrived)
{
    static const struct {
        size_t length;
        int32_t claimed;
        int32_t kept;
    } cases[] = {{HEAD_SIZE + 2 * STA_SIZE, 2, 2},     {HEAD_SIZE + 2 * STA_SIZE, 3, 2},
                 {HEAD_SIZE + 2 * STA_SIZE - 1, 2, 1}, {PELKIN_MSG_MAX, INT32_MAX, REAUTH_STA_MAX},
                 {HEAD_SIZE + STA_SIZE - 1, 1, 0},     {10, 1, 0},
                 {HEAD_SIZE + STA_SIZE, 0, 0},         {HEAD_SIZE, -5, -5}};
    for (const auto &row : cases) {
        std::string batch = make_batch({}, row.claimed);
        auto *attrs = reinterpret_cast<reauth_attr *>(batch.data());
        pelkin_cut_reauth_attr(attrs, row.length);
        EXPECT_EQ(attrs->sta_num, row.kept) << row.claimed << " claimed, length " << row.length;
    }
}

// The station manager, and a request socket whose sends never wait.
class StationManager : public testing::Test
{
  protected:
    void SetUp() override
    {
        tu_pelkin_fltlog = 1;
        pelkin_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        kivren = std::make_unique<support::Requester>(KIVREN_SOCKET_PATH);
    }

    void TearDown() override
    {
        close(pelkin_sock);
        pelkin_sock = -1;
    }

    // What is there at once; "" when nothing is.
    std::string receive() const
    {
        return kivren->receive(0).value_or("");
    }

    std::unique_ptr<support::Requester> kivren;
};

using ReauthAnswer = StationManager;

TEST_F(ReauthAnswer, ReportHoldsTheStationsOfTheAnswerInItsOrder)
{
    static const std::string long_token(65, 'a');
    static const std::string huge(5000, 'x');
    static const std::string open = "{\"tokens\":{";
    static const std::string b_false = "\"b\":{\"valid\":false}";
    static const std::vector<std::pair<std::string, Report>> cases = {
        {open + "\"a\":{\"valid\":true}," + b_false + "}}", {{0, 1}, {1, 0}}},
        {open + b_false + ",\"a\":{\"valid\":true}}}", {{1, 0}, {0, 1}}},
        {"\r\n[" + open + b_false + "}}", {{1, 0}}},
        {open + b_false + "," + b_false + "}}", {{1, 0}, {1, 0}}},
        {open + "\"twin\":{\"valid\":true}}}", {{2, 1}}},
        {open + "\"c\":{\"valid\":true}," + b_false + "}}", {{1, 0}}},
        {open + "\"c\":{\"valid\":true}}}", {}},
        {open + "\"A\":{\"valid\":true},\"aa\":{\"valid\":true},\"twi\":{\"valid\":true}}}", {}},
        {open + "\"a\":{\"valid\":null},\"a\":{\"valid\":0},\"b\":{\"valid\":False}}}",
         {{0, 1}, {0, 1}, {1, 1}}},
        // White space: an empty result, a value of five characters, a value that is too long.
        {open + " \"a\":{\"valid\":true}," + b_false + "}}", {{1, 0}}},
        {open + "\"a\": {\"valid\":true}," + b_false + "}}", {{1, 0}}},
        {open + "\"a\":{\"valid\": true}," + b_false + "}}", {{0, 1}, {1, 0}}},
        {open + "\"a\":{\"valid\": false}," + b_false + "}}", {{1, 0}}},
        {"{ \"tokens\":{" + b_false + "}}", {}},
        // Empty parts lead to the next comma, texts longer than their field to the next entry.
        {open + "\"\":{\"valid\":true}," + b_false + "}}", {{1, 0}}},
        {open + "\"a\":{\"valid\":}," + b_false + "}}", {{1, 0}}},
        {open + "\"" + long_token + "\":{\"valid\":true}," + b_false + "}}", {{1, 0}}},
        {open + "\"" + huge + "\":{\"valid\":" + huge + "}," + b_false + "}}", {{1, 0}}},
        {open + "\"a\":{\"valid\":true,\"x\":1}," + b_false + "}}", {{1, 0}}},
        {open + "\"a\":{\"valid\":falsey}," + b_false + "}}", {{1, 0}}},
        // The first closing brace ends a nested value, a second one the answer.
        {open + "\"a\":{\"valid\":{}}," + b_false + "}}", {{0, 1}}},
        {open + "}," + b_false + "}}", {}},
        // Answers that end early.
        {open + b_false + ",\"a\":{\"valid\":false", {{1, 0}, {0, 0}}},
        {open + b_false + ",\"a\":{\"valid\":", {{1, 0}}},
        {open + b_false + ",\"a", {{1, 0}}},
        {open + b_false, {{1, 0}}},
        {open, {}},
        {"{\"error\":\"busy\"}", {}},
        {"", {}},
    };
    const std::string batch = make_batch({"a", "b", "twin", "twin", std::string(64, 'a')});
    for (const auto &[answer, report] : cases) {
        EXPECT_EQ(pelkin_check_reauth_resp(batch_of(batch), answer.c_str(), (int32_t)answer.size()),
                  0);
        EXPECT_EQ(receive(), report_bytes(report)) << answer.substr(0, 100);
    }
}

TEST_F(ReauthAnswer, LargeAnswersAreReportedAsFarAsTheyGo)
{
    const std::vector<std::string> tokens = make_tokens(REAUTH_STA_MAX, 64);
    const std::string batch = make_batch(tokens);
    std::vector<std::string> shuffled;
    Report report;
    for (int i = 0; i < 700; i++) {
        const int station = i * 299 % 700; // each of the first 700 once
        shuffled.push_back(tokens[(size_t)station]);
        report.emplace_back(station, 1);
    }
    std::string answer = batch_answer(shuffled, "true");
    (void)pelkin_check_reauth_resp(batch_of(batch), answer.c_str(), (int32_t)answer.size());
    EXPECT_EQ(receive(), report_bytes(report));

    // 82 bytes an entry: the cut lies within the token of station 749.
    answer = batch_answer(tokens, "true").substr(0, PELKIN_MSG_MAX - 1);
    report.clear();
    for (int station = 0; station < 749; station++) {
        report.emplace_back(station, 1);
    }
    (void)pelkin_check_reauth_resp(batch_of(batch), answer.c_str(), (int32_t)answer.size());
    EXPECT_EQ(receive(), report_bytes(report));

    answer = batch_answer(std::vector<std::string>(5200, "a"), "true");
    (void)pelkin_check_reauth_resp(batch_of(make_batch({"a"})), answer.c_str(), 0);
    EXPECT_EQ(receive(), report_bytes(Report(5118, {0, 1})));
}

TEST_F(ReauthAnswer, BatchWithoutStationsIsNeverReported)
{
    static const char answer[] = "{\"tokens\":{\"a\":{\"valid\":true}}}";
    static reauth_resp out;
    for (const int32_t below_one : {0, -1}) {
        const std::string batch = make_batch({"a"}, below_one);
        EXPECT_EQ(pelkin_analysis_reauth_resp(batch_of(batch), answer, &out), -1);
        EXPECT_EQ(pelkin_check_reauth_resp(batch_of(batch), answer, sizeof answer - 1), 0);
        EXPECT_EQ(receive(), "");
    }
}

TEST_F(ReauthAnswer, NullArgumentsAreRefused)
{
    const std::string batch = make_batch({"a"});
    static reauth_resp out;
    char body[8];
    EXPECT_EQ(pelkin_build_reauth_data(nullptr, 8, batch_of(batch)), -1);
    EXPECT_EQ(pelkin_build_reauth_data(body, sizeof body, nullptr), -1);
    EXPECT_EQ(pelkin_check_reauth_resp(nullptr, "", 0), -1);
    EXPECT_EQ(pelkin_analysis_reauth_resp(nullptr, "", &out), -1);
    EXPECT_EQ(pelkin_analysis_reauth_resp(batch_of(batch), nullptr, &out), -1);
    EXPECT_EQ(pelkin_analysis_reauth_resp(batch_of(batch), "", nullptr), -1);
    EXPECT_EQ(pelkin_send_reauth_resp(nullptr), -1);
    EXPECT_EQ(pelkin_print_reauth_resp_msg(nullptr), -1);
}

TEST_F(ReauthAnswer, LostReportIsToldAndTheNextOneArrives)
{
    const std::string batch = make_batch({"a"});
    static const char answer[] = "{\"tokens\":{\"a\":{\"valid\":false}}}";
    kivren.reset();
    EXPECT_EQ(pelkin_check_reauth_resp(batch_of(batch), answer, sizeof answer - 1), 0);
    EXPECT_STREQ(tu_tmpbuf, "Failed to send reauth response.");
    kivren = std::make_unique<support::Requester>(KIVREN_SOCKET_PATH);
    EXPECT_EQ(pelkin_check_reauth_resp(batch_of(batch), answer, sizeof answer - 1), 0);
    EXPECT_STREQ(tu_tmpbuf, "Success to send request to kivren.");
    EXPECT_EQ(receive(), report_bytes({{0, 0}}));
}

using FbauthAnswer = StationManager;

TEST_F(FbauthAnswer, OnlyExactlyFalseRemovesTheStation)
{
    static const struct {
        const char *answer;
        int32_t result;
        const char *said; // the last message
    } cases[] = {
        {"{\"valid\":true}", 0, "The valid is true"},
        {"{\"valid\":False}", 0, "The valid is False"},
        {"{\"valid\":0}", 0, "The valid is 0"},
        {"{\"valid\": false}", 0, "The valid is  false"},
        {"{\"valid\":falsehood}", 0, "The valid is falsehood"},
        {"{\"valid\":fals", 0, "The valid is fals"},
        {"{\"valid\":}", -1, "The valid is invalid"},
        {"{\"valid\":", -1, "The valid is invalid"},
        {"{\"error\":1}", -1, "The response format is incorrect."},
        {"{ \"valid\":false}", -1, "The response format is incorrect."},
        {"", -1, "The response format is incorrect."},
    };
    const fbauth_attr attrs = {.mac = {2, 0, 0, 0xAA, 0xBB, 0xFF}, .text = {}};
    for (const auto &row : cases) {
        EXPECT_EQ(pelkin_analysis_fbauth_resp(&attrs, row.answer), row.result) << row.answer;
        EXPECT_STREQ(tu_tmpbuf, row.said) << row.answer;
        EXPECT_EQ(receive(), "") << row.answer;
    }
    const std::string removal("\0\x15\0\0\x0B\0\0\x03\x06\0\0\0\x02\0\0\xAA\xBB\xFF", 18);
    for (const char *answer : {"{\"valid\":false}", " \n{\"a\":1,\"b\":{\"valid\":false}}",
                               "{\"valid\":false", "{\"valid\":false}{\"valid\":true}"}) {
        EXPECT_EQ(pelkin_analysis_fbauth_resp(&attrs, answer), 0) << answer;
        EXPECT_EQ(receive(), removal) << answer;
    }
    EXPECT_EQ(pelkin_analysis_fbauth_resp(nullptr, ""), -1);
    EXPECT_EQ(pelkin_analysis_fbauth_resp(&attrs, nullptr), -1);
}

TEST_F(FbauthAnswer, RemovalThatCannotBeSentIsTold)
{
    const fbauth_attr attrs = {.mac = {2, 0, 0, 0, 0, 1}, .text = {}};
    while (pelkin_del_sta_req(attrs.mac) == 0) { // until the station manager's queue is full
    }
    EXPECT_EQ(pelkin_analysis_fbauth_resp(&attrs, "{\"valid\":false}"), 0);
    EXPECT_STREQ(tu_tmpbuf, "Failed to send del sta(mac:02:00:00:00:00:01) request to kivren.");
    EXPECT_EQ(receive().size(), 18U);
    EXPECT_EQ(pelkin_del_sta_req(attrs.mac), 0);
}
