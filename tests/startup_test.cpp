// Start-up with each step failing once: the rest of it does not happen, the whole shutdown does.
// The log service's command is a stand-in that keeps its calls, unregistration being the first
// thing that a shutdown does; status 0 is the last.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/ipc_msg.h"
#include "core/signals.h"
#include "core/startup.h"
#include "tests/support/daemon.h"
#include "tests/support/log_sink.h"

using namespace support;

static const std::string CALLS = "/tmp/ttylog_calls";

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
        write_file(PELKIN_LEVEL_FILE, "5");
        // NOLINTNEXTLINE(concurrency-mt-unsafe)
        ASSERT_EQ(setenv("PATH", "/tmp/ttylog_bin:/usr/sbin:/usr/bin:/sbin:/bin", 1), 0);
    }
};

// The daemon with system calls failing as strace's `inject` says; the leak check cannot run there.
static std::vector<std::string> with_failing(const std::string &calls, const std::string &inject,
                                             const std::string &path = "")
{
    std::vector<std::string> command = {"env",    "ASAN_OPTIONS=detect_leaks=0",
                                        "strace", "-D",
                                        "-f",     "-qq",
                                        "-o",     "/dev/null",
                                        "-e",     "trace=" + calls,
                                        "-e",     "inject=" + inject};
    if (!path.empty()) {
        command.insert(command.end(), {"-P", path});
    }
    command.push_back("PELKIN");
    return command;
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

// Waits until the sink has what was sent to it before.
static void drain(LogSink &log)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)log.bound_path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(sendto(fd, "all sent", 8, 0, (const sockaddr *)&address, sizeof address), 8);
    (void)close(fd);
    EXPECT_TRUE(log.wait_for("all sent"));
}

static void expect_whole_shutdown(Daemon &daemon, const std::string &calls)
{
    const int status = daemon.wait_for_end();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << daemon.error_text();
    EXPECT_EQ(read_file(CALLS), calls);
}

static const std::string REGISTRATION = "register_process PELKIN enable 1 1.pelkin\n";
static const std::string BOTH_CALLS = REGISTRATION + "unregister_process PELKIN\n";

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
    const int status = daemon.wait_for_end();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
    const std::string dump = read_file("/etc/quorvane/dump/pelkin.dump");
    EXPECT_EQ(dump.rfind("# pelkin, crashed at ", 0), 0u);
    EXPECT_NE(dump.find("# End of Crash dump\n"), std::string::npos);
}

TEST_F(StartUpSteps, CrashHandlerEndsTheProcessByItself)
{
    std::filesystem::rename("/etc/quorvane", "/etc/quorvane.away");
    Daemon daemon({"PELKIN"}, false);
    const int status = daemon.wait_for_end();
    std::filesystem::rename("/etc/quorvane.away", "/etc/quorvane");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
    EXPECT_FALSE(std::filesystem::exists(PELKIN_PID_FILE));
    EXPECT_EQ(read_file(CALLS), "");
}

TEST_F(StartUpSteps, SignalPipe)
{
    Daemon daemon(with_failing("pipe2", "pipe2:error=EMFILE:when=1"), false);
    expect_whole_shutdown(daemon, ""); // nothing was registered yet
    EXPECT_FALSE(std::filesystem::exists(PELKIN_PID_FILE));
}

TEST_F(StartUpSteps, PidFileAndLogServiceMayFail)
{
    LogSink log;
    Daemon daemon(with_failing("openat", "openat:error=EROFS", PELKIN_PID_FILE), false);
    EXPECT_TRUE(reaches_main_loop(daemon, log));
    daemon.kill_now();
    SetUp();
    Daemon silent({"PELKIN"}, true);
    silent.kill_now();
}

TEST_F(StartUpSteps, TlsContext)
{
    LogSink log;
    write_file("/tmp/no_tls.cnf", "openssl_conf = all\n[all]\nproviders = some\n"
                                  "[some]\nnull = only\n[only]\nactivate = 1\n");
    Daemon daemon({"env", "OPENSSL_CONF=/tmp/no_tls.cnf", "PELKIN"}, false);
    expect_whole_shutdown(daemon, BOTH_CALLS);
    EXPECT_TRUE(log.wait_for("pelkin_init():create ctx fail.\n"));
    EXPECT_FALSE(std::filesystem::exists(PELKIN_SOCKET_PATH));
}

TEST_F(StartUpSteps, RequestSocket)
{
    LogSink log;
    write_file(PELKIN_SOCKET_PATH, "in the way");
    Daemon daemon({"PELKIN"}, false);
    expect_whole_shutdown(daemon, BOTH_CALLS);
    EXPECT_TRUE(log.wait_for("pelkin_init():Unable to open unix socket: Address already in use\n"));
}

// Children and a sanitizer's own threads are made by the same call, so each of its first ones fails
// in turn.
TEST_F(StartUpSteps, EachThread)
{
    static const char *const failures[] = {"cannot start monitor thread for vokmon",
                                           "cannot start wechat thread."};
    uint32_t seen[2] = {};
    for (int which = 1; which <= 6; which++) {
        SetUp();
        LogSink log;
        Daemon daemon(with_failing("clone3", "clone3:error=EAGAIN:when=" + std::to_string(which)),
                      false);
        daemon.end_expected = true;
        if (reaches_main_loop(daemon, log)) {
            daemon.kill_now();
        }
        drain(log);
        for (size_t i = 0; i < 2; i++) {
            if (log.count(failures[i]) > 0) {
                seen[i]++;
                expect_whole_shutdown(daemon, BOTH_CALLS);
            }
        }
    }
    EXPECT_EQ(seen[0], 1u);
    EXPECT_EQ(seen[1], 1u);
}
