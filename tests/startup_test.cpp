// Start-up with each step failing once: the rest of it does not happen, the whole shutdown does.
// The log service's command is a stand-in that keeps its calls, unregistration being the first
// thing that a shutdown does; status 0 is the last.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "core/daemon/signals.h"
#include "core/daemon/startup.h"
#include "core/ipc_msg.h"
#include "tests/support/daemon.h"
#include "tests/support/log_sink.h"

using namespace support;

static const std::string CALLS = "/tmp/ttylog_calls";
static const std::string BOTH_CALLS =
    "register_process PELKIN enable 1 1.pelkin\nunregister_process PELKIN\n";

class StartUpSteps : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/tmp/ttylog_bin");
        write_file("/tmp/ttylog_bin/ttylog", "#!/bin/sh\necho \"$*\" >> " + CALLS + "\n");
        std::filesystem::permissions("/tmp/ttylog_bin/ttylog", std::filesystem::perms::owner_all);
        for (const char *left : {CALLS.c_str(), PELKIN_PID_FILE, PELKIN_SOCKET_PATH}) {
            std::filesystem::remove(left);
        }
        std::filesystem::create_directories("/etc/quorvane");
        write_file(PELKIN_LEVEL_FILE, "5");
        ASSERT_EQ(setenv("PATH", "/tmp/ttylog_bin:/usr/sbin:/usr/bin:/sbin:/bin", 1), 0);
    }
};

// A shell's command: the daemon with a system call failing as strace's `inject` says. The leak
// check cannot run there.
static std::string with_failing(const std::string &call, const std::string &how,
                                const std::string &options = "")
{
    return "exec env ASAN_OPTIONS=detect_leaks=0 strace -D -f -qq -o /dev/null " + options +
           " -e trace=" + call + " -e inject=" + call + ":error=" + how + " PELKIN";
}

// Whether start-up succeeded: the main loop then answers a signal.
static bool reaches_main_loop(Daemon &daemon, LogSink &log)
{
    (void)wait_until([&] { return !daemon.alive() || is_served(PELKIN_SOCKET_PATH); });
    if (daemon.alive()) {
        (void)kill(daemon.pid, SIGUSR1);
    }
    (void)wait_until([&] { return !daemon.alive() || log.count("received SIGUSR1") > 0; });
    return log.count("received SIGUSR1") > 0;
}

TEST_F(StartUpSteps, SigpipeIsIgnoredAlthoughTheCrashHandlerTookIt)
{
    LogSink log;
    Daemon daemon;
    const auto mask_of = [&](const std::string &name) {
        const std::string status = read_file("/proc/" + std::to_string(daemon.pid) + "/status");
        return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16);
    };
    EXPECT_NE(mask_of("SigIgn:") & 1ull << (SIGPIPE - 1), 0u);
    for (const int number : {SIGSEGV, SIGFPE, SIGBUS}) {
        EXPECT_NE(mask_of("SigCgt:") & 1ull << (number - 1), 0u) << number;
    }
    (void)kill(daemon.pid, SIGPIPE);
    EXPECT_TRUE(reaches_main_loop(daemon, log));
    (void)kill(daemon.pid, SIGSEGV);
    EXPECT_EQ(daemon.wait_for_end(), W_EXITCODE(255, 0));
    const std::string dump = read_file("/etc/quorvane/dump/pelkin.dump");
    EXPECT_EQ(dump.rfind("# pelkin, crashed at ", 0), 0u);
    EXPECT_NE(dump.find("# End of Crash dump\n"), std::string::npos);
}

TEST_F(StartUpSteps, FailedStepIsTheLastOneUnlessItIsThePidFile)
{
    write_file("/tmp/no_tls.cnf", "openssl_conf = all\n[all]\nproviders = some\n"
                                  "[some]\nnull = only\n[only]\nactivate = 1\n");
    const struct {
        std::string command;
        int status;
        const char *message; // null: the step comes before the PID file and the log's registration
    } steps[] = {
        {"rm -r /etc/quorvane; exec PELKIN", 255, nullptr}, // by the crash handler itself
        {with_failing("pipe2", "EMFILE:when=1"), 0, nullptr},
        {"exec env OPENSSL_CONF=/tmp/no_tls.cnf PELKIN", 0, "create ctx fail.\n"},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.command);
        SetUp();
        LogSink log;
        Daemon daemon({"sh", "-c", step.command}, false);
        EXPECT_EQ(daemon.wait_for_end(), W_EXITCODE(step.status, 0)) << daemon.error_text();
        const bool registered = step.message != nullptr;
        EXPECT_EQ(read_file(CALLS), registered ? BOTH_CALLS : "");
        EXPECT_EQ(std::filesystem::exists(PELKIN_PID_FILE), registered);
        EXPECT_FALSE(std::filesystem::exists(PELKIN_SOCKET_PATH));
        if (registered) {
            EXPECT_TRUE(log.wait_for(std::string("pelkin_init():") + step.message));
        }
    }
    LogSink log;
    const std::string pid_file = std::string("-P ") + PELKIN_PID_FILE;
    Daemon daemon({"sh", "-c", with_failing("openat", "EROFS", pid_file)}, false);
    EXPECT_TRUE(reaches_main_loop(daemon, log));
}

// Other programs look them up in it, and nothing in it refers to them.
TEST(Binary, OffersTheNamesOfTheLevels)
{
    EXPECT_EQ(
        std::system("nm -D --defined-only \"$PELKIN\" | grep -cE ' (tu_(priority|facility)names|"
                    "tu_flowlevel|vesk_syslog_(en|de)code)$' | grep -qx 5"),
        0);
}

// Children and a sanitizer's own threads are made by the same call, so each of its first ones fails
// in turn.
TEST_F(StartUpSteps, EachThread)
{
    size_t monitors = 0;
    size_t wechats = 0;
    for (int which = 1; which <= 6; which++) {
        SetUp();
        LogSink log;
        Daemon daemon({"sh", "-c", with_failing("clone3", "EAGAIN:when=" + std::to_string(which))},
                      false);
        daemon.end_expected = true;
        if (!reaches_main_loop(daemon, log) && daemon.wait_for_end() == 0) {
            EXPECT_TRUE(log.wait_for("cannot start "));
            EXPECT_EQ(read_file(CALLS), BOTH_CALLS);
            monitors += log.count("cannot start monitor thread for vokmon");
            wechats += log.count("cannot start wechat thread.");
        }
    }
    EXPECT_EQ(monitors, 1u);
    EXPECT_EQ(wechats, 1u);
}
