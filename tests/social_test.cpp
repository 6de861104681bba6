// Token verification as seen from its two ends, the text for the verification server and what the
// station manager's socket receives for an answer; then both through the running daemon.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/ipc_send.h"
#include "log/log.h"
#include "social/fbauth.h"
#include "social/reauth_answer.h"
#include "social/reauth_report.h"
#include "social/reauth_request.h"
#include "social/station_removal.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

namespace
{

const fbauth_attr TOKEN = {.mac = {2, 0, 0, 0xAA, 0xBB, 0xFF}, .text = {}};
const std::string MAC((const char *)TOKEN.mac, PELKIN_MAC_SIZE);
const std::string REMOVAL = removal(MAC);

constexpr size_t BATCH_HEAD_SIZE = offsetof(reauth_attr, sta);
constexpr size_t BATCH_STA_SIZE = sizeof(reauth_sta);

// The two changing bytes at the end of station i's address.
std::string address_end(size_t i)
{
    return {(char)(i >> 8), (char)i};
}

// Station i has the counters UINT32_MAX - i and i.
Stations stations_of(const std::vector<std::string> &tokens)
{
    Stations stations;
    for (uint32_t i = 0; i < tokens.size(); i++) {
        stations.push_back({tokens[i], address_end(i), false, UINT32_MAX - i, i});
    }
    return stations;
}

// No byte lies behind the last one. `sta_num`: instead of the true one.
std::string make_batch(const std::vector<std::string> &tokens,
                       std::optional<int32_t> sta_num = std::nullopt,
                       const std::string &secret = "s")
{
    return batch(stations_of(tokens), secret, sta_num);
}

std::string batch_body(const std::vector<std::string> &tokens)
{
    return batch_text(stations_of(tokens));
}

// Station and verdict of each entry of a report.
using Report = std::vector<std::pair<int, int>>;

// The datagram of a report; "" for none.
std::string report_bytes(const Report &entries)
{
    Stations stations;
    for (const auto &[station, verdict] : entries) {
        stations.push_back({"", address_end((size_t)station), verdict == 1});
    }
    return entries.empty() ? "" : report(stations);
}

const reauth_attr *batch_of(const std::string &bytes)
{
    return reinterpret_cast<const reauth_attr *>(bytes.data());
}

// Different tokens, each `width` characters long.
std::vector<std::string> make_tokens(int count, size_t width)
{
    std::vector<std::string> tokens;
    for (int i = 0; i < count; i++) {
        tokens.push_back(std::string(width - 4, 't') + std::to_string(1000 + i));
    }
    return tokens;
}

// An answer that holds no token for valid.
std::string refuse(const std::vector<std::string> &tokens)
{
    return batch_answer(stations_of(tokens));
}

std::string build(const std::string &batch, size_t size = PELKIN_MSG_MAX)
{
    std::vector<char> out(size, 'o');
    EXPECT_EQ(pelkin_build_reauth_data(out.data(), size, batch_of(batch)), 0);
    EXPECT_EQ(std::string(out.data(), size).find_last_not_of('\0'), strlen(out.data()) - 1);
    return out.data();
}

TEST(ReauthBody, HoldsEveryStationOnceUntilALimitIsReached)
{
    for (const int32_t below_two : {1, 0, -1, INT32_MIN}) {
        EXPECT_EQ(build(make_batch({"a", "b"}, below_two)), batch_body({"a"}));
    }
    for (const int count : {3, REAUTH_STA_MAX}) {
        EXPECT_EQ(build(make_batch(make_tokens(count, 8))), batch_body(make_tokens(count, 8)));
    }
    const std::string batch = make_batch(make_tokens(REAUTH_STA_MAX, 64));
    const std::string whole = batch_body(make_tokens(REAUTH_STA_MAX, 64));
    EXPECT_EQ(build(batch), whole.substr(0, PELKIN_MSG_MAX - 1));
    EXPECT_EQ(build(batch, 90000), whole.substr(0, whole.find('{') + 1 + 65535) + "}");
    EXPECT_EQ(build(batch, 10), "secret=s&");
    EXPECT_EQ(build(make_batch(make_tokens(REAUTH_STA_MAX, 8), INT32_MAX)),
              batch_body(make_tokens(REAUTH_STA_MAX, 8)));
    // Fields without their NUL, and the longest secret, three characters for each of 128.
    EXPECT_EQ(build(make_batch({"a"}, 1, std::string(128, '&'))).find("&tokens="), 7 + 384u);
    const std::string full = build(make_batch({std::string(65, 'T')}, 1, std::string(129, 'S')));
    EXPECT_EQ(full.substr(0, full.find(":{")),
              "secret=" + std::string(129, 'S') + "&tokens={\"" + std::string(65, 'T') + "\"");
}

TEST(ReauthBatch, NumberOfStationsIsCutToWhatArrived)
{
    const size_t two = BATCH_HEAD_SIZE + 2 * BATCH_STA_SIZE;
    const size_t one = BATCH_HEAD_SIZE + BATCH_STA_SIZE;
    const std::tuple<size_t, int32_t, int32_t> cases[] = {
        {two, 2, 2},     {two, 3, 2}, {two - 1, 2, 1}, {PELKIN_MSG_MAX, INT32_MAX, REAUTH_STA_MAX},
        {one - 1, 1, 0}, {10, 1, 0},  {one, 0, 0},     {BATCH_HEAD_SIZE, -5, -5}};
    for (const auto &[length, claimed, kept] : cases) {
        std::string batch = make_batch({}, claimed);
        pelkin_cut_reauth_attr(reinterpret_cast<reauth_attr *>(batch.data()), length);
        EXPECT_EQ(batch_of(batch)->sta_num, kept) << claimed << " claimed, length " << length;
    }
}

// The station manager, and a request socket whose sends never wait.
struct StationManager : testing::Test {
    StationManager()
    {
        tu_pelkin_fltlog = 1;
        pelkin_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    ~StationManager() override
    {
        (void)close(pelkin_sock);
        pelkin_sock = -1;
    }
    // What comes of an answer. It is read as text: its length decides nothing.
    std::string report_on(const std::string &batch, const std::string &answer) const
    {
        EXPECT_EQ(pelkin_check_reauth_resp(batch_of(batch), answer.c_str(), 0), 0);
        return kivren->receive(0).value_or("");
    }

    std::unique_ptr<Requester> kivren = std::make_unique<Requester>(KIVREN_SOCKET_PATH);
};

TEST_F(StationManager, ReportHoldsTheStationsOfTheAnswerInItsOrder)
{
    const std::string open = R"({"tokens":{)";
    const std::string b_false = R"("b":{"valid":false})";
    const std::string b = b_false + "}}";
    const std::string longest(64, 'a');
    const std::string huge(5000, 'x');
    const std::pair<std::string, Report> cases[] = {
        {open + R"("a":{"valid":true},)" + b, {{0, 1}, {1, 0}}},
        {"\r\n[" + open + b, {{1, 0}}},
        {open + b_false + "," + b, {{1, 0}, {1, 0}}},
        {open + R"("twin":{"valid":true},"c":{"valid":true},)" + b, {{2, 1}, {1, 0}}},
        {open + R"("A":{"valid":true},"aa":{"valid":true},"twi":{"valid":true}}})", {}},
        {open + R"("a":{"valid":null},"a":{"valid":0},"b":{"valid":False}}})",
         {{0, 1}, {0, 1}, {1, 1}}},
        // White space: empty parts, a value of five characters, a value that is too long.
        {open + R"( "a":{"valid":true},"a": {"valid":true},)" + b, {{1, 0}}},
        {open + R"("a":{"valid": true},"a":{"valid": false},)" + b, {{0, 1}, {1, 0}}},
        {R"({ "tokens":{)" + b, {}},
        // Empty parts lead to the next comma, texts longer than their field to the next entry.
        {open + R"("":{"valid":true},"a":{"valid":},)" + b, {{1, 0}}},
        {open + "\"" + longest + R"(a":{"valid":true},")" + longest + R"(":{"valid":true},)" + b,
         {{4, 1}, {1, 0}}},
        {open + "\"" + huge + R"(":{"valid":)" + huge + "}," + b, {{1, 0}}},
        {open + R"("a":{"valid":true,"x":1},"a":{"valid":falsey},)" + b, {{1, 0}}},
        // The first closing brace ends a nested value, a second one the answer.
        {open + R"("a":{"valid":{}},)" + b, {{0, 1}}},
        {open + "}," + b, {}},
        // Answers that end early.
        {open + b_false + R"(,"a":{"valid":false)", {{1, 0}, {0, 0}}},
        {open + b_false + R"(,"a":{"valid":)", {{1, 0}}},
        {open + b_false + R"(,"a)", {{1, 0}}},
        {open + b_false, {{1, 0}}},
        {open, {}},
        {R"({"error":"busy"})", {}},
        {"", {}},
        {refuse(std::vector<std::string>(5200, "a")), Report(5118, {0, 0})},
    };
    const std::string batch = make_batch({"a", "b", "twin", "twin", longest});
    static reauth_resp out;
    const std::string beyond = make_batch(make_tokens(REAUTH_STA_MAX, 8), INT32_MAX);
    EXPECT_EQ(pelkin_find_sta_by_token(batch_of(beyond), "x"), nullptr);
    for (const auto &[answer, report] : cases) {
        EXPECT_EQ(report_on(batch, answer), report_bytes(report)) << answer.substr(0, 100);
        for (const int32_t below_one : {0, -1}) {
            const std::string none = make_batch({"a"}, below_one);
            EXPECT_EQ(report_on(none, answer), "") << answer.substr(0, 100);
            EXPECT_EQ(pelkin_analysis_reauth_resp(batch_of(none), answer.c_str(), &out), -1);
        }
    }
}

TEST_F(StationManager, OnlyExactlyFalseRemovesTheStation)
{
    const char asks[] = "Send a del sta(mac:02:00:00:aa:bb:ff) request message to kivren.";
    const std::tuple<const char *, int32_t, const char *> cases[] = {
        {R"({"valid":true})", 0, "The valid is true"},
        {R"({"valid":False})", 0, "The valid is False"},
        {R"({"valid": false})", 0, "The valid is  fals"},
        {R"({"valid":falsehood})", 0, "The valid is false"},
        {R"({"valid":})", -1, "The valid is invalid"},
        {R"({"valid":)", -1, "The valid is invalid"},
        {R"({"error":1})", -1, "The response format is incorrect."},
        {R"({ "valid":false})", -1, "The response format is incorrect."},
        {"", -1, "The response format is incorrect."},
        {R"({"valid":false})", 0, asks},
        {R"({"valid":false)", 0, asks}};
    for (const auto &[answer, result, said] : cases) {
        EXPECT_EQ(pelkin_analysis_fbauth_resp(&TOKEN, answer), result) << answer;
        EXPECT_STREQ(tu_tmpbuf, said) << answer; // the last message
        EXPECT_EQ(kivren->receive(0).value_or(""), said == asks ? REMOVAL : "") << answer;
    }
}

TEST_F(StationManager, LostMessagesAreToldAndNoFailureOfTheAnswer)
{
    while (pelkin_del_sta_req(TOKEN.mac) == 0) { // until its queue is full
    }
    EXPECT_EQ(report_on(make_batch({"a"}), refuse({"a"})), REMOVAL);
    EXPECT_STREQ(tu_tmpbuf, "Failed to send reauth response.");
    EXPECT_EQ(pelkin_del_sta_req(TOKEN.mac), 0);
    EXPECT_EQ(pelkin_analysis_fbauth_resp(&TOKEN, R"({"valid":false})"), 0);
    EXPECT_STREQ(tu_tmpbuf, "Failed to send del sta(mac:02:00:00:aa:bb:ff) request to kivren.");
}

// The station manager, a verification server that holds no token for valid, and a daemon that tells
// everything and has small stacks (sanitizers multiply what a call needs). Most batches are the
// largest ones.
struct Verification : StationManager {
    Verification()
    {
        daemon.set_trace_level(7, log);
    }
    std::string answer_to(const std::string &request)
    {
        const bool is_batch = request.starts_with("POST");
        asked.push_back(is_batch ? body_of(request) : request.substr(0, request.find('\r')));
        std::vector<std::string> known = tokens;
        known.insert(known.end(), {"b", "a"});
        return is_batch ? refuse(known) : R"({"valid":false})";
    }
    // Each is on while its file exists.
    void set_switches(int no_verification, int no_result)
    {
        const std::string name = "ignore_fb_token_verification";
        const std::string path = "/tmp/" + name;
        const std::string result_path = path + "_result";
        no_verification != 0 ? write_file(path, "") : (void)unlink(path.c_str());
        no_result != 0 ? write_file(result_path, "") : (void)unlink(result_path.c_str());
        const std::string confirmation = name + " = " + std::to_string(no_verification) + ", " +
                                         name + "_result = " + std::to_string(no_result);
        const size_t before = log.count(confirmation);
        (void)kill(daemon.pid, SIGUSR2);
        ASSERT_TRUE(log.wait_for(confirmation, before + 1));
    }
    void send_batch(const std::vector<std::string> &batch) const
    {
        ASSERT_TRUE(module.send(Request{.url = "http://127.0.0.1/batch",
                                        .msg_id = PELKIN_MSG_REAUTH_REQ,
                                        .resp_method = PELKIN_RESP_ANALYSE,
                                        .http_req_type = PELKIN_HTTP_POST,
                                        .data = make_batch(batch)}));
    }
    void send_both() const
    {
        send_batch(tokens);
        ASSERT_TRUE(module.send(Request{.url = "http://127.0.0.1/token",
                                        .text = "access_token=1",
                                        .msg_id = PELKIN_MSG_FBAUTH_REQ,
                                        .resp_method = PELKIN_RESP_ANALYSE,
                                        .address = MAC}));
    }
    // The next two messages are the report and the removal.
    void expect_both() const
    {
        Report report;
        for (int station = 0; station < 759; station++) {
            report.emplace_back(station, 0);
        }
        EXPECT_EQ(kivren->receive(), report_bytes(report));
        EXPECT_EQ(kivren->receive(), REMOVAL);
    }

    const std::vector<std::string> tokens = make_tokens(759, 60);
    std::vector<std::string> asked; // the server's, until it has been stopped
    Server server{{},
                  serve_bodies([this](const std::string &request) { return answer_to(request); })};
    SyslogSink log;
    Daemon daemon{{"bash", "-c", is_sanitized() ? "exec PELKIN" : "ulimit -s 256; exec PELKIN"}};
    Requester module;
};

TEST_F(Verification, SwitchesActInTheMiddleOfTheLargestTraffic)
{
    send_both();
    expect_both();

    set_switches(0, 1);
    send_both();
    EXPECT_TRUE(log.wait_for("ignore fb token verification result.", 2));

    set_switches(1, 0);
    send_both();
    EXPECT_TRUE(log.wait_for("ignore fb token verification.", 2));

    set_switches(0, 0);
    send_both();
    expect_both();
    // Nothing of a large batch shows in a small one.
    send_batch({"a", "b"});
    EXPECT_EQ(kivren->receive(), report_bytes({{1, 0}, {0, 0}}));
    EXPECT_EQ(server.connections, 1);
    server.stop();
    const std::string body = batch_body(tokens).substr(0, 61439);
    const std::string get = "GET /token?access_token=1 HTTP/1.0";
    EXPECT_EQ(asked,
              (std::vector<std::string>{body, get, body, get, body, get, batch_body({"a", "b"})}));
}

TEST_F(Verification, RequestWithoutAWholeAddressRemovesNoStation)
{
    for (const size_t came : {0, 3, 5}) {
        ASSERT_TRUE(module.send(Request{.url = "http://127.0.0.1/token",
                                        .msg_id = PELKIN_MSG_FBAUTH_REQ,
                                        .resp_method = PELKIN_RESP_ANALYSE,
                                        .data = MAC.substr(0, came)}));
        EXPECT_TRUE(log.wait_for("without a station, data length:" + std::to_string(came)));
    }
    send_both();
    expect_both();
}

TEST_F(Verification, LostMessagesAreToldAndTheNextOnesArrive)
{
    const std::string lost_report = "Failed to send reauth response.";
    const std::string lost_removal =
        "Failed to send del sta(mac:02:00:00:aa:bb:ff) request to kivren.";
    kivren.reset();
    send_both();
    EXPECT_TRUE(log.wait_for(lost_report));
    EXPECT_TRUE(log.wait_for(lost_removal));

    kivren = std::make_unique<Requester>(KIVREN_SOCKET_PATH);
    const ipc_msg_hdr empty = {};
    while (pelkin_send_ipc_msg(KIVREN_SOCKET_PATH, &empty) == 0) { // until its queue is full
    }
    send_both();
    EXPECT_TRUE(log.wait_for(lost_report, 2));
    EXPECT_TRUE(log.wait_for(lost_removal, 2));
    while (kivren->receive(0)) {
    }
    send_both();
    expect_both();
    EXPECT_TRUE(log.wait_for("Success to send request to kivren."));
    EXPECT_EQ(log.count("Success to send request to kivren."), 1u);
    EXPECT_EQ(server.connections, 1);
}

} // namespace
