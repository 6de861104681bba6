// pelkinctl: requests, exit statuses, streams, and what it leaves behind.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "social/reauth_msg.h"
#include "tests/support/client.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/wechat_msg.h"

using support::Client;
using support::Outcome;
using support::run_client;

static const char FAKE[] = "/tmp/fake-daemon"; // a socket of the test in the daemon's place
static const std::string STATION("\x02\0\0\0\0\x01", 6);

// The arguments of a request to the fake daemon.
static std::vector<std::string> to_fake(std::vector<std::string> arguments)
{
    arguments.insert(arguments.end(), {"--socket", FAKE});
    return arguments;
}

static bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// What pelkinctl sends, without the first two bytes: they name the sender.
static std::string behind_sender(const std::string &message)
{
    return message.substr(2);
}

TEST(Client, RequestsCarryWhatTheArgumentsSay)
{
    struct Case {
        std::vector<std::string> arguments;
        support::Request request;
    };
    const std::string no_station(6, '\0');
    const Case cases[] = {
        {{"get", "h/p"}, {.url = "h/p", .msg_id = 0x15000001, .data = no_station + '\0'}},
        {{"get", "https://h", "--data", "a=b", "--mac", "02:00:00:00:00:01", "--msg-id", "77"},
         {.url = "https://h", .text = "a=b", .msg_id = 77, .address = STATION}},
        {{"get", "h", "--file", "/tmp/x", "--msg-id", "0xFFFFFFFF", "--data",
          std::string(1024, 'd')},
         {.url = "h",
          .text = std::string(1024, 'd'),
          .msg_id = 0xFFFFFFFF,
          .resp_method = PELKIN_RESP_FILE,
          .file_path = "/tmp/x",
          .address = no_station}},
        {{"post", "h", "--data", "-a b\n", "--analyse", "--msg-id", "0x15000004"},
         {.url = "h",
          .text = "-a b\n",
          .msg_id = PELKIN_MSG_FBAUTH_REQ,
          .resp_method = PELKIN_RESP_ANALYSE,
          .http_req_type = PELKIN_HTTP_POST,
          .address = no_station}},
        {{"fbauth", "h", "--mac", "02-00-00-00-00-01", "--data", "t=1"},
         {.url = "h",
          .text = "t=1",
          .msg_id = PELKIN_MSG_FBAUTH_REQ,
          .resp_method = PELKIN_RESP_ANALYSE,
          .address = STATION}},
    };
    const support::Requester fake(FAKE);
    for (const Case &one : cases) {
        Client client(to_fake(one.arguments));
        const std::string sent = fake.receive().value_or(std::string(2, '?'));
        EXPECT_EQ(behind_sender(sent), behind_sender(support::datagram(one.request)))
            << one.arguments[0] << ": " << client.error();
    }
}

TEST(Client, BatchesAndFollowChecksAreLaidOutForTheDaemon)
{
    const support::Requester fake(FAKE);
    support::write_file("/tmp/stations", "# MAC,TOKEN,INCOMING,OUTGOING\r\n\r\n"
                                         "02:00:00:00:00:01,abc,1,4294967295\r\n"
                                         "02:00:00:00:00:02," +
                                             std::string(64, 't') + ",0,7");
    Client batch(to_fake({"reauth", "h", "--secret", std::string(128, 's'), "--tag", "65535",
                          "--stations", "/tmp/stations"}));
    static reauth_attr attr; // zero
    attr.reauth_tag = 65535;
    memset(attr.secret, 's', 128);
    attr.sta_num = 2;
    attr.sta[0] = {.token = "abc",
                   .mac = {2, 0, 0, 0, 0, 1},
                   .padding = 0,
                   .incoming = 1,
                   .outgoing = UINT32_MAX};
    attr.sta[1] = {
        .token = "", .mac = {2, 0, 0, 0, 0, 2}, .padding = 0, .incoming = 0, .outgoing = 7};
    memset(attr.sta[1].token, 't', 64);
    const support::Request request = {
        .url = "h",
        .msg_id = PELKIN_MSG_REAUTH_REQ,
        .resp_method = PELKIN_RESP_ANALYSE,
        .http_req_type = PELKIN_HTTP_POST,
        .data = std::string((const char *)&attr, offsetof(reauth_attr, sta[2]))};
    EXPECT_EQ(behind_sender(fake.receive().value_or("??")),
              behind_sender(support::datagram(request)));
    EXPECT_EQ(batch.wait(), 0);

    support::write_file("/tmp/clients", "02:00:00:00:00:01,o,a,s,-2147483648\n"
                                        "02:00:00:00:00:02,p,b,t,5\n");
    Client follow(to_fake({"check-follow", "--file", "/tmp/clients"}));
    const wechat_check_follow_req clients[] = {
        {.mac = {2, 0, 0, 0, 0, 1},
         .openid = "o",
         .appid = "a",
         .appsecret = "s",
         .delay = INT32_MIN},
        {.mac = {2, 0, 0, 0, 0, 2}, .openid = "p", .appid = "b", .appsecret = "t", .delay = 5}};
    for (const wechat_check_follow_req &client : clients) {
        const std::string payload((const char *)&client, sizeof client);
        EXPECT_EQ(behind_sender(fake.receive().value_or("??")),
                  behind_sender(support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, payload)));
    }
    EXPECT_EQ(follow.wait(), 0);
}

TEST(Client, WrongUsageIsStatusOneAndSendsNothing)
{
    const std::string mac = "02:00:00:00:00:01";
    support::write_file("/tmp/bad", mac + ",o,a,s,5\n" + mac + ",o,a,s,five\n");
    const std::vector<std::string> cases[] = {
        {},
        {"fetch"},
        {"get"},
        {"get", ""},
        {"get", "http:///path"},
        {"get", "h/a b"},
        {"get", "h\r\nX: y/"},
        {"get", std::string(128, 'h')},
        {"get", std::string("h/").append(254, 'p')},
        {"get", "h", "--data", "a b"},
        {"get", "h", "--data", std::string(1025, 'd')},
        {"post", "h"},
        {"get", "h", "--file", "/tmp/x", "--analyse"},
        {"get", "h", "--file", std::string("/").append(141, 'f')},
        {"get", "h", "--mac", "02:00:00:00:00"},
        {"get", "h", "--mac", "02:00:00:00:00:0g"},
        {"get", "h", "--msg-id", "0x100000000"},
        {"get", "h", "--msg-id", "-1"},
        {"get", "h", "--msg-id", "0x15000005"},
        {"get", "h", "--timeout", "0"},
        {"get", "h", "--timeout", "nan"},
        {"reauth", "h", "--secret", "s", "--tag", "1"},
        {"reauth", "h", "--secret", "s", "--tag", "65536", "--station", mac + ",t,1,2"},
        {"reauth", "h", "--secret", "s", "--tag", "1", "--station", mac + ",t,1"},
        {"reauth", "h", "--secret", "s", "--tag", "1", "--station",
         mac + "," + std::string(65, 't') + ",1,2"},
        {"reauth", "h", "--secret", "s", "--tag", "1", "--stations", "/tmp/none"},
        {"check-follow", "--mac", mac},
        {"check-follow", "--file", "/tmp/bad"},
        {"check-follow", "--mac", mac, "--openid", std::string(32, 'o'), "--appid", "a", "--secret",
         "s", "--delay", "1"},
    };
    const support::Requester fake(FAKE);
    for (const std::vector<std::string> &arguments : cases) {
        const Outcome outcome = run_client(arguments.size() > 1 ? to_fake(arguments) : arguments);
        EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_NE(outcome.error, "");
        EXPECT_FALSE(fake.receive(0)) << testing::PrintToString(arguments);
    }
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"--help"}, {"get", "--help"}, {"--version"}}) {
        const Outcome outcome = run_client(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_NE(outcome.out, "");
        EXPECT_EQ(outcome.error, "");
    }
}

TEST(Client, AbsentAndSilentDaemonsAreToldApart)
{
    const std::vector<std::string> ask = to_fake({"get", "h", "--timeout", "0.2"});
    const Outcome absent = run_client(ask);
    EXPECT_EQ(absent.status, 2);
    EXPECT_TRUE(contains(absent.error, "Is pelkin running?"));
    {
        const support::Requester fake(FAKE);
        const Outcome silent = run_client(ask);
        EXPECT_EQ(silent.status, 3);
        EXPECT_EQ(silent.out, "");
        // A daemon that takes nothing any more: its queue is full.
        const support::Requester sender("/tmp/filler");
        const sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/tmp/fake-daemon"};
        while (sendto(sender.fd, "x", 1, MSG_DONTWAIT, (const sockaddr *)&address,
                      sizeof address) == 1) {
        }
        const Outcome deaf = run_client(ask);
        EXPECT_EQ(deaf.status, 3);
        EXPECT_TRUE(contains(deaf.error, "does not take the request"));
        (void)link(FAKE, "/tmp/stale");
    }
    EXPECT_EQ(run_client({"get", "h", "--socket", "/tmp/stale"}).status, 2);
    EXPECT_EQ(run_client({"get", "h", "--socket", std::string("/").append(200, 's')}).status, 2);
}

TEST(Client, AnswersArriveUnchangedOnStandardOutputAlone)
{
    std::string all_bytes;
    for (int byte = 1; byte < 60000; byte++) { // one that begins with a zero passes for none
        all_bytes += (char)byte;
    }
    support::Server server({},
                           support::serve_bodies([&](const std::string &) { return all_bytes; }));
    const support::Daemon daemon;
    const Outcome outcome = run_client({"post", "http://127.0.0.1/", "--data", "x"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out == all_bytes) << outcome.out.size() << " bytes";
    EXPECT_EQ(outcome.error, "");
    (void)chdir("/tmp");
    EXPECT_EQ(run_client({"get", "127.0.0.1/", "--file", "answer"}).status, 0);
    EXPECT_TRUE(
        support::wait_until([&] { return support::read_file("/tmp/answer") == all_bytes; }));
    EXPECT_TRUE(support::reply_sockets().empty());
}

TEST(Client, AnAnswerThatCannotBeWrittenIsNoSuccess)
{
    const support::Requester fake(FAKE);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    Client client(to_fake({"get", "h"}), full);
    ASSERT_TRUE(fake.receive());
    ASSERT_EQ(support::reply_sockets().size(), 1u);
    EXPECT_TRUE(fake.send("answer", support::reply_sockets()[0]));
    EXPECT_EQ(client.wait(), 1);
    EXPECT_TRUE(support::reply_sockets().empty());
    (void)close(full);
}

TEST(Client, StrangersCannotAnswer)
{
    const support::Requester fake(FAKE);
    const support::Requester stranger("/tmp/stranger");
    Client client(to_fake({"get", "h"}));
    ASSERT_TRUE(fake.receive());
    const std::string reply_socket = support::reply_sockets().at(0);
    struct stat status = {};
    EXPECT_EQ(stat(reply_socket.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_FALSE(stranger.send("forged", reply_socket));
    EXPECT_TRUE(fake.send("genuine", reply_socket));
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(client.out(), "genuine");
}

TEST(Client, SocketsGoOnEveryWayOut)
{
    const support::Requester fake(FAKE);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        (void)signal(number, SIG_DFL); // whatever the test was started with
        Client client(
            to_fake({"fbauth", "h", "--mac", "02:00:00:00:00:01", "--data", "t", "--as-kivren"}));
        ASSERT_TRUE(fake.receive());
        ASSERT_TRUE(support::is_served(KIVREN_SOCKET_PATH));
        (void)kill(client.pid, number);
        EXPECT_EQ(client.wait(), 128 + number);
        EXPECT_TRUE(support::reply_sockets().empty()) << number;
        EXPECT_NE(access(KIVREN_SOCKET_PATH, F_OK), 0) << number;
    }
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Client client(to_fake({"get", "h"}), ends[1]);
    ASSERT_TRUE(fake.receive());
    (void)close(ends[0]);
    (void)close(ends[1]);
    EXPECT_TRUE(fake.send("nobody reads this", support::reply_sockets().at(0)));
    EXPECT_EQ(client.wait(), 128 + SIGPIPE);
    EXPECT_TRUE(support::reply_sockets().empty());
}

TEST(Client, AnInterruptCountsInABackgroundJobToo)
{
    const support::Requester fake(FAKE);
    (void)signal(SIGINT, SIG_IGN); // as a script does for its background jobs
    Client client(to_fake({"get", "h"}));
    (void)signal(SIGINT, SIG_DFL);
    ASSERT_TRUE(fake.receive());
    (void)kill(client.pid, SIGINT);
    EXPECT_EQ(client.wait(), 128 + SIGINT);
    EXPECT_TRUE(support::reply_sockets().empty());
}

// What comes to the station manager's socket while pelkinctl serves it.
TEST(Client, ReportsAreShownUntilTheExpectedOne)
{
    const support::Requester fake(FAKE);
    Client client(to_fake({"reauth", "h", "--secret", "s", "--tag", "7", "--station",
                           "02:00:00:00:00:01,t,1,2", "--as-kivren"}));
    ASSERT_TRUE(fake.receive());
    const auto tell = [&](const std::string &message) {
        EXPECT_TRUE(fake.send(message, KIVREN_SOCKET_PATH));
    };
    const auto report = [](uint16_t tag, int32_t sta_num, const std::string &stations) {
        const reauth_resp head = {.reauth_tag = tag, .padding = {}, .sta_num = sta_num, .sta = {}};
        return support::message(PELKIN_MSG_REAUTH_RESP,
                                std::string((const char *)&head, 8) + stations);
    };
    const std::string valid = std::string("\1\0\0\0", 4) + STATION + std::string(2, '\0');
    tell("");
    tell(std::string(11, '\0'));
    tell(report(7, 2, valid)); // an entry short
    tell(report(7, -1, valid));
    tell(report(7, 0x15555556, valid));        // 12 times this is 8 in 32 bits
    tell(report(7, 0, valid) + "x");           // longer than its envelope says
    tell(support::message(0x03000001, valid)); // another message
    tell(support::message(KIVREN_MSG_DEL_STA_REQ, STATION));
    tell(report(8, 1, valid));
    tell(report(7, 1, valid));
    EXPECT_EQ(client.wait(), 0) << client.error();
    EXPECT_EQ(client.out(), "delete station 02:00:00:00:00:01\n"
                            "report: tag 8, stations: 1\n  02:00:00:00:00:01 valid\n"
                            "report: tag 7, stations: 1\n  02:00:00:00:00:01 valid\n");
    EXPECT_NE(access(KIVREN_SOCKET_PATH, F_OK), 0);
}

TEST(Client, VerificationsTravelTheWholeRoad)
{
    support::Server server({}, support::serve_bodies([](const std::string &request) {
                               return contains(request, "POST")
                                          ? "{\"tokens\":{\"t\":{\"valid\":false}}}"
                                          : "{\"valid\":false}";
                           }));
    const support::Daemon daemon;
    const Outcome batch = run_client({"reauth", "127.0.0.1", "--secret", "s", "--tag", "1",
                                      "--station", "02:00:00:00:00:01,t,1,2", "--as-kivren"});
    EXPECT_EQ(batch.out, "report: tag 1, stations: 1\n  02:00:00:00:00:01 not valid\n");
    const Outcome single = run_client(
        {"fbauth", "127.0.0.1", "--mac", "02:00:00:00:00:01", "--data", "t=1", "--as-kivren"});
    EXPECT_EQ(single.out, "delete station 02:00:00:00:00:01\n");
    const support::Requester kivren(KIVREN_SOCKET_PATH);
    const Outcome taken = run_client(
        {"fbauth", "127.0.0.1", "--mac", "02:00:00:00:00:01", "--data", "t=1", "--as-kivren"});
    EXPECT_EQ(taken.status, 2);
    EXPECT_FALSE(kivren.receive(0));
    EXPECT_TRUE(support::is_served(KIVREN_SOCKET_PATH));
}
