// pelkinctl against the daemon and against stand-ins for it: what it sends, prints, returns and
// leaves behind; and the example of the message page.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <pty.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/daemon/signals.h"
#include "core/daemon/startup.h"
#include "social/reauth_msg.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/wechat_msg.h"

using namespace support;
using std::filesystem::exists;
using Arguments = std::vector<std::string>;

static const std::string MAC = "02:00:00:00:00:01";
static const std::string STATION("\x02\0\0\0\0\x01", 6);
static const std::string NONE(6, '\0'); // no station

static const char *const PELKINCTL = std::getenv("PELKINCTL");
static const char OWN_FILE[] = "/tmp/out.$$"; // the shell that becomes the client makes it

static Arguments redirected(Arguments words, const std::string &program, const std::string &out)
{
    words.insert(words.begin(), {"sh", "-c", "exec \"$@\" >" + out, "sh", program});
    return words;
}

// A child, pelkinctl or another program, with its standard output going to `out`. The destructor
// terminates it, so that it leaves no socket to the next case.
struct Client : Daemon {
    explicit Client(const Arguments &arguments, const std::string &out = OWN_FILE,
                    const std::string &program = PELKINCTL)
        : Daemon(redirected(arguments, program, out), false)
    {
    }
    ~Client()
    {
        if (alive()) {
            (void)kill(pid, SIGTERM);
            (void)wait_for_end();
        }
    }
    // Waits for its end: its exit status, or 128 and the signal that ended it.
    int wait()
    {
        const int end = wait_for_end();
        return WIFEXITED(end) ? WEXITSTATUS(end) : 128 + WTERMSIG(end);
    }
    std::string out() const
    {
        return read_file("/tmp/out." + std::to_string(pid));
    }
};

struct Outcome {
    int status;
    std::string out, error;
};

static Outcome run_client(const Arguments &arguments, const std::string &program = PELKINCTL,
                          const std::string &input = "/dev/null")
{
    Client client(arguments, OWN_FILE + (" <" + input), program);
    const int status = client.wait();
    return {status, client.out(), client.error_text()};
}

// The socket that pelkinctl has made for an answer, if any.
static std::string reply_socket()
{
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        if (entry.path().string().rfind("/tmp/pelkinctl-", 0) == 0) {
            return entry.path();
        }
    }
    return "";
}

TEST(Client, RequestsCarryWhatTheArgumentsSay)
{
    write_file("/tmp/stations", "# MAC,TOKEN,INCOMING,OUTGOING\r\n\r\n02:00:00:00:00:01,abc,1," +
                                    std::to_string(UINT32_MAX) + "\r\n02:00:00:00:00:02," +
                                    std::string(64, 't') + ",0,7");
    static reauth_attr batch; // zero
    batch.reauth_tag = 65535;
    memset(batch.secret, 's', 128);
    batch.sta_num = 2;
    batch.sta[0] = {"abc", {2, 0, 0, 0, 0, 1}, 0, 1, UINT32_MAX};
    batch.sta[1] = {"", {2, 0, 0, 0, 0, 2}, 0, 0, 7};
    memset(batch.sta[1].token, 't', 64);
    write_file("/tmp/clients", "02:00:00:00:00:01,o,a,s,-2147483648\n02:00:00:00:00:02,p,b,t,5\n");
    const auto follow = [](const wechat_check_follow_req &client) {
        return message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, bytes_of(client, sizeof client));
    };
    const std::string longest(1024, 'd');
    write_file("/tmp/query", "a=b\n");
    const struct {
        Arguments arguments;
        Arguments messages; // of a URL, its text, id, way back, method, file and station
    } cases[] = {
        {{"get", "h/p"}, {datagram({.url = "h/p", .msg_id = 0x15000001, .data = NONE + '\0'})}},
        {{"get", "https://h", "--data", "a=b", "--mac", MAC, "--msg-id", "77"},
         {datagram({"https://h", "a=b", 77, PELKIN_RESP_SOCKET, 0, "", STATION})}},
        {{"get", "h", "--data", "@/tmp/query"},
         {datagram({"h", "a=b", 0x15000001, PELKIN_RESP_SOCKET, 0, "", NONE})}},
        {{"post", "h", "--data", "@/tmp/query", "--analyse"},
         {datagram({"h", "a=b\n", 0x15000001, PELKIN_RESP_ANALYSE, PELKIN_HTTP_POST, "", NONE})}},
        {{"get", "h", "--file", "x", "--msg-id", "0xFFFFFFFF", "--data", longest},
         {datagram({"h", longest, 0xFFFFFFFF, PELKIN_RESP_FILE, 0, "/tmp/x", NONE})}},
        {{"post", "h", "--data", "-a b\n", "--analyse", "--msg-id", "0x15000004"},
         {datagram({"h", "-a b\n", PELKIN_MSG_FBAUTH_REQ, PELKIN_RESP_ANALYSE, PELKIN_HTTP_POST, "",
                    NONE})}},
        {{"fbauth", "h", "--mac", "02-00-00-00-00-01", "--data", "t=1"},
         {datagram({"h", "t=1", PELKIN_MSG_FBAUTH_REQ, PELKIN_RESP_ANALYSE, 0, "", STATION})}},
        {{"reauth", "h", "--secret", std::string(128, 's'), "--tag", "65535", "--stations",
          "/tmp/stations"},
         {datagram({"h", "", PELKIN_MSG_REAUTH_REQ, PELKIN_RESP_ANALYSE, PELKIN_HTTP_POST, "", "",
                    bytes_of(batch, offsetof(reauth_attr, sta[2]))})}},
        {{"check-follow", "--file", "/tmp/clients"},
         {follow({{2, 0, 0, 0, 0, 1}, "o", "a", "s", INT32_MIN}),
          follow({{2, 0, 0, 0, 0, 2}, "p", "b", "t", 5})}},
    };
    (void)chdir("/tmp"); // of the file named above
    const Requester fake("/tmp/fake-daemon");
    for (const auto &one : cases) {
        Arguments arguments = one.arguments;
        arguments.insert(arguments.end(), {"--socket", "/tmp/fake-daemon"});
        Client client(arguments);
        for (const std::string &expected : one.messages) {
            // Behind the first two bytes, which name the sender.
            EXPECT_EQ(fake.receive().value_or("??").substr(2), expected.substr(2))
                << one.arguments[0] << ": " << client.error_text();
        }
        if (one.arguments[0] != "get" || contains(one.messages[0], "/tmp/x")) { // no answer comes
            EXPECT_EQ(client.wait(), 0) << one.arguments[0];
        }
    }
}

TEST(Client, WrongUsageIsStatusOneAndSendsNothing)
{
    write_file("/tmp/bad", MAC + ",o,a,s,5\n" + MAC + ",o,a,s,five\n");
    write_file("/tmp/nul", std::string("a\0b", 3));
    const Arguments get = {"get", "h"};
    const Arguments batch = {"reauth", "h", "--secret", "s", "--tag"};
    const Arguments client = {"check-follow", "--mac", MAC};
    const std::string station = MAC + ",t,1";
    const struct {
        Arguments command;
        std::vector<Arguments> ends;
    } cases[] = {
        {{}, {{}, {"fetch"}, {"post", "h"}, {"ignore"}, {"ignore", "--result", "maybe"}}},
        {{"get"},
         {{}, {""}, {"http:///path"}, {"h/a b"}, {"h\r\nX: y/"}, {"h:8080/"}, {"ftp://h"}}},
        {{"get"},
         {{"HTTP://h"},
          {"u@h"},
          {"h?x"},
          {"[::1]"},
          {"h", "h:80"},
          {"-"},
          {"a", "b", "--file", "x"}}},
        {{"get"}, {{std::string(128, 'h')}, {std::string("h/").append(254, 'p')}}},
        {get,
         {{"--data", "a b"},
          {"--data", std::string(1025, 'd')},
          {"--data", "@/tmp/none"},
          {"--data", "@/tmp/nul"}}},
        {get, {{"--parallel", "0"}, {"--parallel", "33"}}},
        {{"log"}, {{"--grep", "("}, {"--level", "8"}, {"--for", "0"}}},
        {get, {{"--file", "/tmp/x", "--analyse"}, {"--file", std::string("/").append(141, 'f')}}},
        {get, {{"--mac", "02:00:00:00:00"}, {"--mac", "02:00:00:00:00:0g"}}},
        {get, {{"--msg-id", "0x100000000"}, {"--msg-id", "-1"}, {"--msg-id", "0x15000005"}}},
        {get, {{"--timeout", "0"}, {"--timeout", "nan"}}},
        {batch, {{"1"}, {"65536", "--station", station + ",2"}, {"1", "--station", station}}},
        {batch, {{"1", "--station", MAC + "," + std::string(65, 't') + ",1,2"}}},
        {batch, {{"1", "--stations", "/tmp/none"}}},
        {client,
         {{}, {"--openid", std::string(32, 'o'), "--appid", "a", "--secret", "s", "--delay", "1"}}},
        {{"check-follow"}, {{"--file", "/tmp/bad"}}},
        {{"level"}, {{"8"}, {"-1"}, {"7x"}, {""}, {"loud"}}},
    };
    const Requester fake(PELKIN_SOCKET_PATH);
    for (const auto &one : cases) {
        for (const Arguments &end : one.ends) {
            Arguments arguments = one.command;
            arguments.insert(arguments.end(), end.begin(), end.end());
            const Outcome outcome = run_client(arguments);
            EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
            EXPECT_EQ(outcome.out, "");
            EXPECT_EQ(outcome.error.rfind("pelkinctl: ", 0), 0u) << outcome.error;
            EXPECT_EQ(outcome.error.find('\n') + 1, outcome.error.size()) << outcome.error;
            EXPECT_FALSE(fake.receive(0)) << testing::PrintToString(arguments);
        }
    }
    for (const Arguments &arguments : {Arguments{"--help"}, {"get", "--help"}, {"--version"}}) {
        const Outcome outcome = run_client(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.error, "");
        std::istringstream lines(outcome.out);
        std::string line;
        while (std::getline(lines, line)) {
            EXPECT_LE(line.size(), 100u) << line;
        }
        EXPECT_NE(outcome.out, "");
    }
}

TEST(Client, AbsentAndSilentDaemonsAreToldApart)
{
    const Arguments ask = {"get", "h", "--timeout", "0.2"};
    const Outcome absent = run_client(ask);
    EXPECT_EQ(absent.status, 2);
    EXPECT_TRUE(contains(absent.error, "Is pelkin running?"));
    {
        Requester fake(PELKIN_SOCKET_PATH);
        fake.keeps_file = true;
        const Outcome silent = run_client(ask);
        EXPECT_EQ(silent.status, 3);
        EXPECT_EQ(silent.out, "");
        // A daemon that takes nothing any more: its queue is full.
        const Requester filler("/tmp/filler");
        (void)fcntl(filler.fd, F_SETFL, O_NONBLOCK);
        while (filler.send("x")) {
        }
        const Outcome deaf = run_client(ask);
        EXPECT_EQ(deaf.status, 3);
        EXPECT_TRUE(contains(deaf.error, "does not take the request"));
    }
    EXPECT_EQ(run_client(ask).status, 2) << "its file is left";
    EXPECT_EQ(run_client({"get", "h", "--socket", std::string("/").append(200, 's')}).status, 2);
}

TEST(Client, AnswersOfTheDaemonAloneArriveUnchangedOrAreNoSuccess)
{
    std::string all_bytes;
    for (int byte = 1; byte < 60000; byte++) {
        all_bytes += (char)byte;
    }
    const Requester fake(PELKIN_SOCKET_PATH);
    const Requester stranger("/tmp/stranger");
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    const struct {
        const char *path;
        int status;
        std::string out;
    } cases[] = {{OWN_FILE, 0, all_bytes}, {"/dev/full", 1, ""}, {"/tmp/pipe", 128 + SIGPIPE, ""}};
    for (const auto &one : cases) {
        const int reader = open("/tmp/pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        Client client({"get", "h"}, one.path);
        ASSERT_TRUE(fake.receive());
        (void)close(reader);
        const std::string to = reply_socket();
        struct stat status = {};
        EXPECT_EQ(stat(to.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_FALSE(stranger.send("forged", to));
        EXPECT_TRUE(fake.send(all_bytes, to));
        EXPECT_EQ(client.wait(), one.status);
        EXPECT_TRUE(client.out() == one.out) << client.out().size() << " bytes";
        EXPECT_EQ(client.error_text().empty(), one.status != 1) << client.error_text();
        EXPECT_EQ(reply_socket(), "");
    }
    (void)unlink("/tmp/pipe");
}

TEST(Client, SocketsGoWithEverySignal)
{
    // The last one as a script's background jobs inherit it.
    const std::pair<int, sighandler_t> cases[] = {{SIGINT, SIG_DFL},
                                                  {SIGTERM, SIG_DFL},
                                                  {SIGHUP, SIG_DFL},
                                                  {SIGQUIT, SIG_DFL},
                                                  {SIGINT, SIG_IGN}};
    const Requester fake(PELKIN_SOCKET_PATH);
    for (const auto &[number, inherited] : cases) {
        (void)signal(number, inherited);
        Client client({"fbauth", "h", "--mac", MAC, "--data", "t", "--as-kivren"});
        (void)signal(number, SIG_DFL);
        ASSERT_TRUE(fake.receive());
        ASSERT_TRUE(is_served(KIVREN_SOCKET_PATH));
        (void)kill(client.pid, number);
        EXPECT_EQ(client.wait(), 128 + number);
        EXPECT_EQ(reply_socket(), "") << number;
        EXPECT_FALSE(exists(KIVREN_SOCKET_PATH) || exists(SMART_TTY_SERVICE_PATH)) << number;
    }
}

static std::string record(uint32_t level, const std::string &text)
{
    const smart_tty_msg head = {"PELKIN", 0, level, SMART_TTY_KIND, ""};
    return bytes_of(head, SMART_TTY_HEADER_SIZE) + text;
}

// Whose end it was is not to be mistaken: each of these leaves the request alive.
TEST(Client, OnlyTheEndOfItsOwnWorkerEndsARequest)
{
    const Requester fake(PELKIN_SOCKET_PATH);
    const std::vector<Arguments> cases = {
        {"exit: h:443", "exit: hh:80"},
        {"h:80 will exit because write side pipe has been closed.", "exit: h:80"},
        {"exit: h:80", "begin: h:80"}, // it came too late for the first one
    };
    for (const Arguments &texts : cases) {
        Client client({"get", "h", "--timeout", "0.4"});
        ASSERT_TRUE(fake.receive());
        for (const std::string &text : texts) {
            EXPECT_TRUE(fake.send(record(5, "f():thread " + text + "\n"), SMART_TTY_SERVICE_PATH));
        }
        EXPECT_EQ(client.wait(), 3) << texts[0];
    }
    Client client({"get", "h"});
    ASSERT_TRUE(fake.receive());
    for (const char *text : {"connect fail. mine", "can't get \"other\" host entry",
                             "can't connect to h:80", "Socket Read error of another"}) {
        EXPECT_TRUE(fake.send(record(3, std::string("f():") + text), SMART_TTY_SERVICE_PATH));
    }
    EXPECT_EQ(client.wait(), 4);
    EXPECT_TRUE(contains(client.error_text(), "no connection (connect fail. mine)"));
}

TEST(Client, FailuresAreToldWithTheirCauseAndGoodTokensApart)
{
    Server server({}, serve_bodies([](const std::string &request) {
                      return request.substr(5, request.find(' ', 5) - 5);
                  }));
    const Daemon daemon;
    const auto verify = [](const std::string &answer) {
        return Arguments{"fbauth", "127.0.0.1/" + answer, "--mac", MAC, "--data",
                         "t",      "--as-kivren"};
    };
    const struct {
        Arguments arguments;
        int status;
        std::string out, error;
    } cases[] = {
        {{"get", "127.0.0.2"}, 4, "", "127.0.0.2:80: no connection (connect fail. errno=111"},
        {{"get", "https://127.0.0.2"}, 4, "", "127.0.0.2:443: no connection"},
        {{"get", "no.such.host"}, 4, "", "host name not found (can't get \"no.such.host\""},
        {{"get", "127.0.0.1/a", "127.0.0.3", "127.0.0.1/b", "127.0.0.1/c\n", "--parallel", "3"},
         1,
         "",
         "URL"},
        {{"get", "127.0.0.1/a", "127.0.0.3", "127.0.0.1/b", "--parallel", "3"},
         4,
         "a\nb\n",
         "127.0.0.3: "},
        {verify("{\"valid\":true}?"), 0, "keep station " + MAC + ": valid is true\n", ""},
        {verify("{\"valid\":}?"), 4, "", "The valid is invalid"},
        {verify("none"), 4, "", "The response format is incorrect."},
        {{"fbauth", "127.0.0.2", "--mac", MAC, "--data", "t", "--as-kivren"},
         4,
         "",
         "no connection"},
    };
    for (const auto &one : cases) {
        const Outcome outcome = run_client(one.arguments);
        EXPECT_EQ(outcome.status, one.status) << one.arguments[1];
        EXPECT_EQ(outcome.out, one.out) << one.arguments[1];
        EXPECT_TRUE(contains(outcome.error, one.error)) << outcome.error;
    }
    write_file("/tmp/urls", "127.0.0.1/1\n# none\n127.0.0.1/2\n");
    EXPECT_EQ(run_client({"get", "-", "--parallel", "2"}, PELKINCTL, "/tmp/urls").out, "1\n2\n");
    const LogSink service; // the log is another's: what is left is the worker's thread
    const Outcome outcome = run_client({"get", "127.0.0.4"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_TRUE(contains(outcome.error, "its worker has ended")) << outcome.error;
}

// What comes to the station manager's socket while pelkinctl serves it.
TEST(Client, ReportsAreShownUntilTheExpectedOne)
{
    const Requester fake(PELKIN_SOCKET_PATH);
    Client client(
        {"reauth", "h", "--secret", "s", "--tag", "7", "--station", MAC + ",t,1,2", "--as-kivren"});
    ASSERT_TRUE(fake.receive());
    const auto report = [](uint16_t tag, int32_t sta_num, const std::string &stations) {
        const reauth_resp head = {.reauth_tag = tag, .padding = {}, .sta_num = sta_num, .sta = {}};
        return message(PELKIN_MSG_REAUTH_RESP, bytes_of(head, 8) + stations);
    };
    const std::string valid = std::string("\1\0\0\0", 4) + STATION + std::string(2, '\0');
    const std::string messages[] = {
        "",
        std::string(11, '\0'),
        report(7, 2, valid), // an entry short
        report(7, -1, valid),
        report(7, 0x15555556, valid.substr(0, 8)), // 12 times this is 8 in 32 bits
        report(7, 0, valid) + "x",                 // longer than its envelope says
        message(0x03000001, valid),                // another message
        message(KIVREN_MSG_DEL_STA_REQ, STATION),
        report(8, 1, valid),
        report(7, 1, valid),
    };
    for (const std::string &one : messages) {
        EXPECT_TRUE(fake.send(one, KIVREN_SOCKET_PATH));
    }
    EXPECT_EQ(client.wait(), 0) << client.error_text();
    EXPECT_EQ(client.out(), "delete station 02:00:00:00:00:01\n"
                            "report: tag 8, stations: 1\n  02:00:00:00:00:01 valid\n"
                            "report: tag 7, stations: 1\n  02:00:00:00:00:01 valid\n");
    EXPECT_FALSE(exists(KIVREN_SOCKET_PATH));

    Client single({"fbauth", "h", "--mac", MAC, "--data", "t", "--as-kivren"});
    ASSERT_TRUE(fake.receive());
    for (const std::string &station : {NONE, STATION}) {
        EXPECT_TRUE(fake.send(message(KIVREN_MSG_DEL_STA_REQ, station), KIVREN_SOCKET_PATH));
    }
    EXPECT_EQ(single.wait(), 0);
    EXPECT_EQ(single.out(), "delete station 00:00:00:00:00:00\n"
                            "delete station 02:00:00:00:00:01\n");
}

TEST(Client, VerificationsTravelTheWholeRoad)
{
    Server server({}, serve_bodies([](const std::string &request) {
                      return contains(request, "POST") ? "{\"tokens\":{\"t\":{\"valid\":false}}}"
                                                       : "{\"valid\":false}";
                  }));
    const Daemon daemon;
    const Outcome batch = run_client({"reauth", "127.0.0.1", "--secret", "s", "--tag", "1",
                                      "--station", MAC + ",t,1,2", "--as-kivren"});
    EXPECT_EQ(batch.out, "report: tag 1, stations: 1\n  02:00:00:00:00:01 not valid\n");
    const Arguments single = {"fbauth", "127.0.0.1", "--mac", MAC, "--data", "t=1", "--as-kivren"};
    EXPECT_EQ(run_client(single).out, "delete station 02:00:00:00:00:01\n");
    EXPECT_EQ(run_client({"get", "127.0.0.1"}).out, "{\"valid\":false}");
    const Requester kivren(KIVREN_SOCKET_PATH);
    EXPECT_EQ(run_client(single).status, 2);
    EXPECT_FALSE(kivren.receive(0));
    EXPECT_TRUE(is_served(KIVREN_SOCKET_PATH));
}

// Every steering command fails with status 2 and this complaint, and touches no file.
static void expect_refusal(const std::string &complaint)
{
    for (const Arguments &arguments :
         {Arguments{"level", "7"}, {"ignore", "--verification", "on", "--result", "on"}}) {
        const Outcome outcome = run_client(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_TRUE(contains(outcome.error, complaint)) << outcome.error;
    }
    EXPECT_FALSE(exists(PELKIN_LEVEL_FILE));
    EXPECT_FALSE(exists(PELKIN_IGNORE_VERIFICATION_FILE));
    const Outcome status = run_client({"status", "--json"});
    EXPECT_EQ(status.status, 2);
    EXPECT_TRUE(contains(status.out, "{\"pid\":null,\"problem\":\"")) << status.out;
    EXPECT_TRUE(contains(status.out, complaint)) << status.out;
}

TEST(Steering, NoProgramButTheDaemonIsSignalled)
{
    (void)unlink(PELKIN_PID_FILE);
    expect_refusal("not running");
    for (const char *text : {"", "x", "-1", "0", "99999999999999999999", "12x"}) {
        write_file(PELKIN_PID_FILE, text);
        expect_refusal("holds no process id");
    }
    Client other({"1000"}, "/dev/null", "/bin/sleep");
    const std::string pid = std::to_string(other.pid);
    ASSERT_TRUE(wait_until([&] { return read_file("/proc/" + pid + "/comm") == "sleep\n"; }));
    write_file(PELKIN_PID_FILE, pid + "\n");
    expect_refusal("process " + pid + " is another program (sleep)");
    (void)kill(other.pid, SIGKILL);
    EXPECT_EQ(other.wait(), 128 + SIGKILL) << "it was signalled";
    expect_refusal("process " + pid + " does not exist");

    Daemon daemon;
    (void)kill(daemon.pid, SIGKILL); // and not waited for yet
    ASSERT_TRUE(wait_until([&] {
        const std::string path = "/proc/" + std::to_string(daemon.pid) + "/status";
        return contains(read_file(path), "zombie");
    }));
    expect_refusal("waits for its parent");
    daemon.kill_now();
}

TEST(Steering, LevelsAndSwitchesReachTheDaemon)
{
    SyslogSink log;
    const Daemon daemon;
    const struct {
        Arguments arguments;
        const char *logged;
    } cases[] = {
        {{"level", "7"}, "set log_level = 7"},
        {{"level", "Notice"}, "set log_level = 5"},
        {{"level", "info"}, "set log_level = 6"},
        {{"ignore", "--verification", "on"},
         "verification = 1, ignore_fb_token_verification_result = 0"},
        {{"ignore", "--result", "on"}, "verification = 1, ignore_fb_token_verification_result = 1"},
        {{"ignore", "--verification", "off"},
         "verification = 0, ignore_fb_token_verification_result = 1"},
        {{"ignore", "--verification", "off", "--result", "off"},
         "verification = 0, ignore_fb_token_verification_result = 0"},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(run_client(one.arguments).status, 0);
        EXPECT_TRUE(log.wait_for(one.logged));
    }

    // What planted links lead to stays as it is.
    write_file("/tmp/victim", "precious");
    for (const char *path : {PELKIN_LEVEL_FILE, PELKIN_IGNORE_RESULT_FILE}) {
        (void)unlink(path);
        ASSERT_EQ(symlink("/tmp/victim", path), 0);
    }
    EXPECT_EQ(run_client({"level", "4"}).status, 0);
    EXPECT_EQ(run_client({"ignore", "--result", "on"}).status, 0);
    EXPECT_EQ(read_file(PELKIN_LEVEL_FILE), "4");
    EXPECT_EQ(run_client({"ignore", "--result", "off"}).status, 0);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    (void)unlink(PELKIN_LEVEL_FILE);
}

TEST(Watching, OnlyAReplyToTheProbeIsASignOfLifeAndStatusTellsTheRest)
{
    const Arguments probe = {"probe", "--json", "--timeout", "0.2"};
    EXPECT_EQ(run_client(probe).status, 2);
    EXPECT_EQ(run_client({"wait", "--timeout", "0.1"}).status, 2);
    {
        const Requester monitor(PELKIN_MONITOR_SOCKET_PATH);
        Client client({"probe", "--json", "--timeout", "1"});
        EXPECT_EQ(monitor.receive(), message(VOKMON_MSG_PROBE, "").replace(1, 1, 1, '\0'));
        const std::string to = reply_socket();
        EXPECT_TRUE(monitor.send("", to));
        EXPECT_TRUE(monitor.send(message(VOKMON_MSG_PROBE, ""), to));
        EXPECT_EQ(client.wait(), 3);
        EXPECT_EQ(client.out(), "{\"alive\":false,\"answer_ms\":null}\n");
    }
    Client waiting({"wait"});
    Daemon daemon;
    EXPECT_EQ(waiting.wait(), 0) << waiting.error_text();
    EXPECT_EQ(run_client({"probe", "-q"}).out, "");
    const Outcome alive = run_client({"probe", "--json"});
    EXPECT_EQ(alive.status, 0);
    EXPECT_EQ(alive.out.rfind("{\"alive\":true,\"answer_ms\":", 0), 0u) << alive.out;

    // A second daemon fails to start, and leaves its own number.
    EXPECT_EQ(Daemon({"PELKIN"}, false).wait_for_end(), 0);
    write_file(PELKIN_LEVEL_FILE, " 99999999999 rest");
    write_file(PELKIN_IGNORE_RESULT_FILE, "");
    const auto expect_status = [&](const std::string &state) {
        const Outcome status = run_client({"status", "--json"});
        EXPECT_EQ(status.status, 0);
        for (const std::string &part :
             {"{\"pid\":" + std::to_string(daemon.pid) + ",\"problem\":null,\"alive\":true,", state,
              "\"threads\":" + std::to_string(count_threads(daemon.pid)) + ","}) {
            EXPECT_TRUE(contains(status.out, part)) << status.out;
        }
        EXPECT_FALSE(contains(status.out, "null,\"resident_kib\"")) << status.out;
    };
    expect_status("\"level\":5,\"level_file\":2147483647,\"ignore_verification\":false,"
                  "\"ignore_verification_file\":false,\"ignore_result\":false,"
                  "\"ignore_result_file\":true,");
    EXPECT_EQ(run_client({"level"}).out, "5 (notice); set to 2147483647, not yet read\n");
    EXPECT_EQ(run_client({"level", "6"}).status, 0);
    EXPECT_EQ(run_client({"ignore", "--verification", "on"}).status, 0);
    EXPECT_TRUE(wait_until([] {
        return contains(run_client({"status"}).out, "log level            6 (info)\n"
                                                    "ignore verification  on\n"
                                                    "ignore result        on\n");
    }));
    for (const char *path :
         {PELKIN_LEVEL_FILE, PELKIN_IGNORE_RESULT_FILE, PELKIN_IGNORE_VERIFICATION_FILE}) {
        (void)unlink(path);
    }
    expect_status("\"level\":6,\"level_file\":null,\"ignore_verification\":true,");

    // Held up: nobody takes the probe.
    siginfo_t stopped = {};
    (void)kill(daemon.pid, SIGSTOP);
    ASSERT_EQ(waitid(P_PID, (id_t)daemon.pid, &stopped, WSTOPPED), 0); // with all its threads
    EXPECT_EQ(run_client(probe).status, 3);
    (void)kill(daemon.pid, SIGCONT);
    EXPECT_EQ(reply_socket(), "");
}

TEST(Watching, WorkersAreShownWithWhatTheyDoAndTopCountsFailures)
{
    std::atomic<bool> is_held{true};
    Server server({}, [&](Connection &connection) {
        (void)connection.read_request();
        EXPECT_TRUE(wait_until([&] { return !is_held; }));
        (void)connection.send(answer("done"));
        (void)connection.wait_for_close();
    });
    const Daemon daemon;
    const auto shows = [](const std::string &state) {
        const std::string text = run_client({"workers", "--json"}).out;
        // The thread sanitizer has a thread of its own in the daemon, which stands first.
        return contains(text,
                        std::string(is_sanitized() ? "" : "[") +
                            "{\"server\":\"127.0.0.1\",\"cut\":false,\"port\":80,\"state\":\"" +
                            state + "\",\"age_s\":") &&
               contains(text, ",\"in_flight\":0}]\n");
    };
    Client client({"get", "127.0.0.1"});
    EXPECT_TRUE(wait_until([&] { return shows("waiting"); }));
    is_held = false;
    EXPECT_EQ(client.wait(), 0);
    EXPECT_TRUE(wait_until([&] { return shows("idle"); }));

    const Client top({"top", "--interval", "0.1", "--json"});
    ASSERT_TRUE(wait_until([&] { return contains(top.out(), "\"failures\":{}}\n"); }));
    EXPECT_EQ(run_client({"get", "127.0.0.5"}).status, 4);
    EXPECT_TRUE(
        wait_until([&] { return contains(top.out(), "\"failures\":{\"no connection\":1}}\n"); }));
    EXPECT_TRUE(contains(run_client({"top", "--for", "0.1"}).out, "failures: not known"));
}

// A view that has come as far as its first record: before, a signal may still end it otherwise.
struct LogView : Client {
    explicit LogView(const std::string &out = OWN_FILE, const Arguments &arguments = {"log"})
        : Client(arguments, out)
    {
        EXPECT_TRUE(wait_until([&] { return contains(error_text(), "showing what arrives"); }));
    }
};

// The lines of a view without their times of arrival.
static std::string without_times(std::string text)
{
    size_t at = 0;
    do {
        text.erase(at, text[at] == '2' ? strlen("2026-01-01 00:00:00.000 ") : 0);
        at = text.find('\n', at) + 1; // 0 when there is none
    } while (at != 0 && at < text.size());
    return text;
}

TEST(Log, ShowsTheDaemonsRecordsAndLeavesNothing)
{
    LogView view;
    const Daemon daemon;
    EXPECT_EQ(run_client({"level", "debug"}).status, 0);
    EXPECT_TRUE(wait_until([&] { return contains(view.out(), "log_level = 7\n"); }));
    EXPECT_TRUE(contains(without_times(view.out()),
                         "PELKIN notice  pelkin_set_log_level():received SIGUSR1, set"));
    const Outcome second = run_client({"log"});
    EXPECT_EQ(second.status, 2);
    EXPECT_TRUE(contains(second.error, "is served already")) << second.error;
    EXPECT_TRUE(is_served(SMART_TTY_SERVICE_PATH));
    (void)kill(view.pid, SIGTERM);
    EXPECT_EQ(view.wait(), 0);
    EXPECT_FALSE(exists(SMART_TTY_SERVICE_PATH));
    (void)unlink(PELKIN_LEVEL_FILE);
}

TEST(Log, NoRecordCanForgeALineOrATerminalCommand)
{
    LogView view;
    const Requester module;
    const std::string datagrams[] = {
        "short",
        record(3, ""),
        record(3, "a\x1b[2J\rb\n2026-01-01 forged\n\n"),
        record(4000000000u, std::string(5000, 'x') + "no end"),
        // Controls; UTF-8; C1 in UTF-8 and as a byte; no UTF-8, overlong, a surrogate, beyond; cut.
        record(3, "plain\ttext\x1b]0;title\x07|\r\b\x7f\v|"
                  "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80|"
                  "\xc2\x9b[31m|\xc2\x85|\x9b[31m|"
                  "\xff|\xc0\x9b\xe0\x80\x9b\xed\xa0\x80\xf4\x90\x80\x80|"
                  "\xe2\x82[0m|\xc3"),
        record(6, "last\n"),
    };
    for (const std::string &datagram : datagrams) {
        EXPECT_TRUE(module.send(datagram, SMART_TTY_SERVICE_PATH));
    }
    EXPECT_TRUE(wait_until([&] { return contains(view.out(), "last\n"); }));
    EXPECT_EQ(without_times(view.out()), "PELKIN err     a[2Jb\n    2026-01-01 forged\n"
                                         "PELKIN level 4000000000" +
                                             std::string(SMART_TTY_TEXT_MAX + 1, 'x') +
                                             "\nPELKIN err     plain\ttext]0;title||"
                                             "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80|"
                                             "[31m||[31m|||[0m|\nPELKIN info    last\n");
}

TEST(Log, ShowsOnlyWhatIsAskedForInTheFormAskedFor)
{
    const struct {
        Arguments options;
        const char *shown;
    } cases[] = {
        {{"--level", "4"}, "PELKIN err     f():one \"1\"\nPELKIN warning g():two\n"},
        {{"--grep", "^g.*o{2}|f"}, "PELKIN err     f():one \"1\"\n"},
        {{"--count", "--level", "err", "--for", "5"}, "1\n"},
        {{"--json", "--grep", "one"},
         "\"process\":\"PELKIN\",\"level\":\"err\",\"function\":\"f\",\"message\":\"one "
         "\\\"1\\\"\"}\n"},
    };
    const Requester module;
    for (const auto &one : cases) {
        Arguments arguments = one.options;
        arguments.insert(arguments.begin(), "log");
        LogView view(OWN_FILE, arguments);
        for (const std::string &datagram :
             {record(3, "f():one \"1\"\n"), record(4, "g():two\n"), record(5, "h():three\n")}) {
            EXPECT_TRUE(module.send(datagram, SMART_TTY_SERVICE_PATH));
        }
        const auto text = [&] { // without a time, which a line of JSON begins with
            const std::string out = view.out();
            const size_t at = out.find("\"process\"");
            return at != std::string::npos ? out.substr(at) : without_times(out);
        };
        EXPECT_TRUE(wait_until([&] { return text() == one.shown; })) << text();
        (void)kill(view.pid, SIGTERM);
        EXPECT_EQ(view.wait(), 0);
        EXPECT_EQ(text(), one.shown);
    }
}

TEST(Log, TakesAStaleSocketsPlaceButNoOtherFiles)
{
    {
        Requester gone(SMART_TTY_SERVICE_PATH);
        gone.keeps_file = true;
    }
    {
        LogView view;
        // The log service comes and takes its place back.
        const LogSink service;
        (void)kill(view.pid, SIGINT);
        EXPECT_EQ(view.wait(), 0);
        EXPECT_TRUE(is_served(SMART_TTY_SERVICE_PATH)) << "the service's socket was removed";
    }
    write_file(SMART_TTY_SERVICE_PATH, "not a socket");
    const Outcome refused = run_client({"log"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_TRUE(contains(refused.error, "what stands there is no socket")) << refused.error;
    EXPECT_EQ(read_file(SMART_TTY_SERVICE_PATH), "not a socket");
    (void)unlink(SMART_TTY_SERVICE_PATH);
}

TEST(Log, EndsWithItsReaderWithoutAnyRecord)
{
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    const int reader = open("/tmp/pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    LogView view("/tmp/pipe");
    (void)close(reader);
    EXPECT_EQ(view.wait(), 128 + SIGPIPE);
    EXPECT_FALSE(exists(SMART_TTY_SERVICE_PATH));
}

TEST(Log, ColoursATerminalUnlessToldNotTo)
{
    const Requester module;
    (void)setenv("TERM", "xterm", 1);
    for (const bool is_coloured : {true, false}) {
        int master = -1;
        int terminal = -1;
        char path[32];
        ASSERT_EQ(openpty(&master, &terminal, path, nullptr, nullptr), 0);
        const LogView view(path);
        EXPECT_TRUE(module.send(record(3, "text"), SMART_TTY_SERVICE_PATH));
        std::string shown;
        for (char byte = 0; byte != '\n' && read(master, &byte, 1) == 1;) {
            shown += byte;
        }
        EXPECT_EQ(contains(shown, "\x1b[31merr     text\x1b[0m"), is_coloured) << shown;
        EXPECT_EQ(contains(shown, "\x1b"), is_coloured) << shown;
        (void)close(terminal);
        (void)close(master);
        (void)setenv("NO_COLOR", "1", 1); // the second time
    }
    (void)unsetenv("NO_COLOR");
}

TEST(Example, FetchesAUrlAndFailsWithoutADaemon)
{
    const std::string scripts = std::string(std::getenv("PELKIN_SOURCE_DIR")) + "/docs/examples/";
    const std::string programs = std::string(std::getenv("PELKIN_BINARY_DIR")) + "/tests/example_";
    Server server({}, serve_bodies([](const std::string &request) {
                      return "asked: " + request.substr(0, request.find("\r\n"));
                  }));
    for (const std::string &example :
         {programs + "request", programs + "request_by_hand", scripts + "request.sh",
          scripts + "request.py", scripts + "request.lua"}) {
        SCOPED_TRACE(example);
        const auto run_example = [&](const std::string &url) {
            return run_client({url}, example.c_str());
        };
        EXPECT_NE(run_example("http://127.0.0.1/").status, 0);
        const Daemon daemon;
        const Outcome outcome = run_example("http://127.0.0.1/page");
        EXPECT_EQ(outcome.out + outcome.error, "asked: GET /page HTTP/1.0");
        EXPECT_EQ(outcome.status, 0);
        EXPECT_NE(run_example("http://h/" + std::string(300, 'x')).status, 0) << "cut, another URL";
    }
}

TEST(Example, IsAllTheCodeThatTheMessagePageShows)
{
    const std::string docs = std::string(std::getenv("PELKIN_SOURCE_DIR")) + "/docs/";
    const std::string page = read_file(docs + "messages.md");
    const std::string code =
        read_file(docs + "examples/request.c") + read_file(docs + "examples/request_by_hand.c");
    const std::string opening = "```c\n";
    size_t blocks = 0;
    for (size_t at = page.find(opening); at != std::string::npos; at = page.find(opening, at)) {
        at += opening.size();
        const std::string block = page.substr(at, page.find("```", at) - at);
        EXPECT_TRUE(contains(code, block)) << block;
        blocks++;
    }
    EXPECT_GT(blocks, 0u);
}
