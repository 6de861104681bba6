// pelkinctl's steering and watching of a daemon that may not be there.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/monitor.h"
#include "core/signals.h"
#include "core/startup.h"
#include "tests/support/client.h"
#include "tests/support/daemon.h"
#include "tests/support/log_sink.h"
#include "tests/support/requester.h"

using support::Outcome;
using support::run_client;

static bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

static bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

static const std::vector<std::string> STEERING[] = {
    {"level", "7"}, {"ignore", "--verification", "on", "--result", "on"}};

// Every steering command fails with status 2 and this complaint, and touches no file.
static void expect_refusal(const std::string &complaint)
{
    for (const std::vector<std::string> &arguments : STEERING) {
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
        support::write_file(PELKIN_PID_FILE, text);
        expect_refusal("holds no process id");
    }
    const pid_t other = fork();
    if (other == 0) {
        (void)execlp("sleep", "sleep", "1000", nullptr);
        _exit(127);
    }
    const std::string stale = "process " + std::to_string(other);
    ASSERT_TRUE(support::wait_until([&] {
        return support::read_file("/proc/" + std::to_string(other) + "/comm") == "sleep\n";
    }));
    support::write_file(PELKIN_PID_FILE, std::to_string(other) + "\n");
    expect_refusal(stale + " is another program (sleep)");
    EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "it was signalled";
    (void)kill(other, SIGKILL);
    (void)waitpid(other, nullptr, 0);
    expect_refusal(stale + " does not exist");

    support::Daemon daemon;
    (void)kill(daemon.pid, SIGKILL); // and not waited for yet
    ASSERT_TRUE(support::wait_until([&] {
        return contains(support::read_file("/proc/" + std::to_string(daemon.pid) + "/status"),
                        "zombie");
    }));
    expect_refusal("waits for its parent");
    daemon.kill_now();
    daemon.end_expected = true;
}

TEST(Steering, LevelsAndSwitchesReachTheDaemon)
{
    support::SyslogSink log;
    support::Daemon daemon;
    const struct {
        const char *level;
        const char *text;
    } levels[] = {{"7", "7"}, {"Notice", "5"}, {"info", "6"}};
    for (const auto &one : levels) {
        EXPECT_EQ(run_client({"level", one.level}).status, 0);
        EXPECT_EQ(support::read_file(PELKIN_LEVEL_FILE), one.text);
        EXPECT_TRUE(log.wait_for(std::string("set log_level = ") + one.text));
    }
    for (const char *level : {"8", "-1", "7x", "", "loud"}) {
        EXPECT_EQ(run_client({"level", level}).status, 1) << level;
    }
    const struct {
        std::vector<std::string> arguments;
        const char *switches;
    } switches[] = {
        {{"--verification", "on"}, "verification = 1, ignore_fb_token_verification_result = 0"},
        {{"--result", "on"}, "verification = 1, ignore_fb_token_verification_result = 1"},
        {{"--verification", "off"}, "verification = 0, ignore_fb_token_verification_result = 1"},
        {{"--verification", "off", "--result", "off"},
         "verification = 0, ignore_fb_token_verification_result = 0"},
    };
    for (const auto &one : switches) {
        std::vector<std::string> arguments = one.arguments;
        arguments.insert(arguments.begin(), "ignore");
        EXPECT_EQ(run_client(arguments).status, 0);
        EXPECT_TRUE(log.wait_for(one.switches));
    }
    EXPECT_EQ(run_client({"ignore"}).status, 1);
    EXPECT_EQ(run_client({"ignore", "--result", "maybe"}).status, 1);
}

TEST(Steering, FilesBehindPlantedLinksStayAsTheyAre)
{
    const support::Daemon daemon;
    support::write_file("/tmp/victim", "precious");
    for (const char *path : {PELKIN_LEVEL_FILE, PELKIN_IGNORE_RESULT_FILE}) {
        (void)unlink(path);
        ASSERT_EQ(symlink("/tmp/victim", path), 0);
    }
    EXPECT_EQ(run_client({"level", "4"}).status, 0);
    EXPECT_EQ(run_client({"ignore", "--result", "on"}).status, 0);
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
    EXPECT_EQ(support::read_file(PELKIN_LEVEL_FILE), "4");
    EXPECT_EQ(run_client({"ignore", "--result", "off"}).status, 0);
    EXPECT_TRUE(exists("/tmp/victim"));
    (void)unlink(PELKIN_LEVEL_FILE);
}

TEST(Watching, StatusTellsWhatIsThere)
{
    support::Daemon daemon;
    ASSERT_TRUE(support::wait_until([] { return support::is_served(PELKIN_MONITOR_SOCKET_PATH); }));
    support::write_file(PELKIN_LEVEL_FILE, " 6 rest");
    support::write_file(PELKIN_IGNORE_RESULT_FILE, "");
    const Outcome outcome = run_client({"status", "--json"});
    EXPECT_EQ(outcome.status, 0);
    for (const std::string &part :
         {"{\"pid\":" + std::to_string(daemon.pid) + ",\"problem\":null,\"alive\":true,",
          std::string("\"level_file\":6,\"ignore_verification\":false,\"ignore_result\":true,"),
          "\"threads\":" + std::to_string(support::count_threads(daemon.pid)) + ","}) {
        EXPECT_TRUE(contains(outcome.out, part)) << outcome.out;
    }
    EXPECT_FALSE(contains(outcome.out, "null,\"resident_kib\"")) << outcome.out;
    (void)unlink(PELKIN_LEVEL_FILE);
    (void)unlink(PELKIN_IGNORE_RESULT_FILE);
    EXPECT_TRUE(contains(run_client({"status", "--json"}).out, "\"level_file\":null"));
}

TEST(Watching, OnlyAReplyToTheProbeIsASignOfLife)
{
    const std::vector<std::string> probe = {"probe", "--json", "--timeout", "0.2"};
    EXPECT_EQ(run_client(probe).status, 2);
    {
        const support::Requester monitor(PELKIN_MONITOR_SOCKET_PATH);
        support::Client client({"probe", "--json", "--timeout", "1"});
        EXPECT_EQ(monitor.receive(), support::message(VOKMON_MSG_PROBE, "").replace(1, 1, 1, '\0'));
        const std::string to = support::reply_sockets().at(0);
        EXPECT_TRUE(monitor.send("", to));
        EXPECT_TRUE(monitor.send(support::message(VOKMON_MSG_PROBE, ""), to));
        EXPECT_EQ(client.wait(), 3);
        EXPECT_EQ(client.out(), "{\"alive\":false,\"answer_ms\":null}\n");
    }
    support::Daemon daemon;
    ASSERT_TRUE(support::wait_until([] { return support::is_served(PELKIN_MONITOR_SOCKET_PATH); }));
    const Outcome alive = run_client({"probe", "--json"});
    EXPECT_EQ(alive.status, 0);
    EXPECT_EQ(alive.out.rfind("{\"alive\":true,\"answer_ms\":", 0), 0u) << alive.out;
    // Held up: nobody takes the probe.
    siginfo_t stopped = {};
    (void)kill(daemon.pid, SIGSTOP);
    ASSERT_EQ(waitid(P_PID, (id_t)daemon.pid, &stopped, WSTOPPED), 0); // with all its threads
    EXPECT_EQ(run_client(probe).status, 3);
    (void)kill(daemon.pid, SIGCONT);
    EXPECT_TRUE(support::reply_sockets().empty());
}
