// Signals, the level file and liveness probes on the running daemon.
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/daemon/signals.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

namespace
{

std::string probe()
{
    std::string bytes = message(VOKMON_MSG_PROBE, "");
    bytes[2] = '\xAB';
    bytes[3] = '\xCD';
    return bytes;
}

std::string expected_reply()
{
    const char head[] = {0x00, 0x15, '\xAB', '\xCD'};
    std::string reply =
        std::string(head, sizeof head) + message(VOKMON_MSG_PROBE_REPLY, "").substr(4);
    return reply;
}

// A signal waits for a thread to take it.
bool has_pending_signal(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return status.find("ShdPnd:\t0000000000000000") == std::string::npos;
}

// Whether all threads sleep, and so have done with every signal that they took.
bool all_sleep(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        if (read_file(task.path() / "syscall").starts_with("running")) {
            return false;
        }
    }
    return true;
}

struct Steering : testing::Test {
    // Waits for the main loop to confirm, so that one signal never merges with the next.
    void signal_and_wait(int number, const std::string &confirmation)
    {
        const size_t before = log.count(confirmation);
        ASSERT_EQ(kill(daemon.pid, number), 0);
        EXPECT_TRUE(log.wait_for(confirmation, before + 1)) << confirmation;
    }

    // The main loop makes a pass, at the end of which a request logs an error.
    void wait_for_pass()
    {
        const size_t before = log.count("fill http task failed.");
        requester.send(Request{.url = "http://"});
        ASSERT_TRUE(log.wait_for("fill http task failed.", before + 1));
    }
    // The start-up is over, what it left in the signal pipe has been read, and every thread sleeps:
    // the next signal then ends the main thread's wait, and no other thread takes it first.
    void wait_for_rest()
    {
        wait_for_pass();
        const std::string in_select = std::to_string(SYS_pselect6) + " ";
        EXPECT_TRUE(wait_until([&] {
            return all_sleep(daemon.pid) &&
                   read_file("/proc/" + std::to_string(daemon.pid) + "/syscall")
                       .starts_with(in_select);
        }));
    }
    void stop_main_thread()
    {
        ASSERT_EQ(ptrace(PTRACE_SEIZE, daemon.pid, nullptr, nullptr), 0);
        ASSERT_EQ(ptrace(PTRACE_INTERRUPT, daemon.pid, nullptr, nullptr), 0);
        int status = 0;
        ASSERT_EQ(waitpid(daemon.pid, &status, __WALL), daemon.pid);
    }
    void resume_main_thread()
    {
        ASSERT_EQ(ptrace(PTRACE_DETACH, daemon.pid, nullptr, nullptr), 0);
    }

    Requester requester;
    SyslogSink log;
    Daemon daemon;
};

// What its content means is the business of fuzz/level_file_fuzzer.
TEST_F(Steering, NoLevelFileMeansErrorAndANamedPipeHoldsNothingUp)
{
    write_file(PELKIN_LEVEL_FILE, "-1"); // everything
    signal_and_wait(SIGUSR1, "received SIGUSR1, set log_level = -1");
    (void)unlink(PELKIN_LEVEL_FILE);
    wait_for_rest();
    // The warning is still printed; the signal is read in the very next pass.
    signal_and_wait(SIGUSR1, "Interrupted system call");
    wait_for_pass();
    log.clear();
    // At error level a dropped datagram (info) leaves no line.
    requester.send("short");
    wait_for_pass();
    EXPECT_EQ(log.count("Received length mismatched"), 0u);
    // A named pipe at that path must not hold the main loop.
    (void)unlink(PELKIN_LEVEL_FILE);
    ASSERT_EQ(mkfifo(PELKIN_LEVEL_FILE, 0600), 0);
    ASSERT_EQ(kill(daemon.pid, SIGUSR1), 0);
    wait_for_pass();
    wait_for_pass();
    (void)unlink(PELKIN_LEVEL_FILE);
}

TEST_F(Steering, SignalForEveryTenthRequestLosesNeither)
{
    const Server server({}, serve_bodies([](const std::string &) { return "ok"; }));
    const int requests = is_sanitized() ? 2000 : 10000;
    const int numbers[] = {SIGUSR1, SIGUSR2, SIGCHLD};
    write_file(PELKIN_LEVEL_FILE, "5");
    write_file(PELKIN_IGNORE_RESULT_FILE, "");
    int answered = 0;
    for (int i = 0; i < requests; i++) {
        if (i % 10 == 0) {
            ASSERT_EQ(kill(daemon.pid, numbers[i / 10 % 3]), 0);
        }
        answered += requester.ask({.url = "http://127.0.0.1/"}) == "ok" ? 1 : 0;
    }
    EXPECT_EQ(answered, requests);

    (void)unlink(PELKIN_IGNORE_RESULT_FILE);
    write_file(PELKIN_IGNORE_VERIFICATION_FILE, "");
    signal_and_wait(SIGUSR2, "set ignore_fb_token_verification = 1, "
                             "ignore_fb_token_verification_result = 0");
    write_file(PELKIN_LEVEL_FILE, "7");
    signal_and_wait(SIGUSR1, "received SIGUSR1, set log_level = 7");
    EXPECT_EQ(requester.ask({.url = "http://127.0.0.1/"}), "ok");
}

// A descriptor of our own for the daemon's signal pipe, the only one it has while it has no worker.
int open_signal_pipe(pid_t pid)
{
    for (int number = STDERR_FILENO + 1; number < 64; number++) {
        const std::string path = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(number);
        std::error_code error;
        if (std::filesystem::read_symlink(path, error).string().starts_with("pipe:")) {
            return open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        }
    }
    return -1;
}

// The handler runs on the main thread too, which alone empties the pipe that it writes to: a pipe
// that a flood has filled to a half must lose signals instead of taking the last ones it has room
// for.
TEST_F(Steering, FloodOfSignalsNeverFillsThePipe)
{
    wait_for_rest(); // all threads are there then
    const int pipe = open_signal_pipe(daemon.pid);
    ASSERT_GE(pipe, 0);
    const std::vector<int32_t> flood((size_t)fcntl(pipe, F_GETPIPE_SZ) / 2 / sizeof(int32_t),
                                     SIGCHLD);
    const auto bytes = (ssize_t)(flood.size() * sizeof flood[0]);
    stop_main_thread();
    EXPECT_EQ(write(pipe, flood.data(), (size_t)bytes), bytes);
    ASSERT_EQ(kill(daemon.pid, SIGCHLD), 0);
    EXPECT_TRUE(
        wait_until([&] { return !has_pending_signal(daemon.pid) && all_sleep(daemon.pid); }));
    resume_main_thread();
    (void)close(pipe);
    EXPECT_TRUE(log.wait_for("write signal number to pipe fail. errno=11,"));
    write_file(PELKIN_LEVEL_FILE, "5");
    signal_and_wait(SIGUSR1, "received SIGUSR1, set log_level = 5");
}

TEST_F(Steering, OneSignalInTheWaitGivesOneWarningAndThenItsAction)
{
    write_file(PELKIN_LEVEL_FILE, "5");
    wait_for_rest();
    signal_and_wait(SIGUSR1, "received SIGUSR1, set log_level = 5");
    EXPECT_EQ(log.count("Select() returns -1 -- Interrupted system call (4)"), 1u);
}

TEST_F(Steering, ProbesAreAnsweredUnderLoad)
{
    ASSERT_TRUE(wait_until([] { return is_served(PELKIN_MONITOR_SOCKET_PATH); }));
    wait_for_pass(); // before its first one the main loop has no mark, and probes are dropped
    const Server server({}, serve_bodies([](const std::string &) { return "ok"; }));
    const Requester prober("/tmp/" + std::string(103, 'p')); // no longer path has an address
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(requester.send(Request{.url = "http://127.0.0.1/"}));
        ASSERT_TRUE(prober.send(probe(), PELKIN_MONITOR_SOCKET_PATH));
        EXPECT_EQ(prober.receive(), expected_reply());
        EXPECT_EQ(requester.receive(), "ok");
    }
}

// Processor time of the process in clock ticks.
unsigned long cpu_ticks(pid_t pid)
{
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    unsigned long user = 0;
    unsigned long system = 0;
    const size_t behind_name = stat.rfind(')');
    EXPECT_EQ(sscanf(stat.c_str() + behind_name,
                     ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system),
              2);
    return user + system;
}

TEST_F(Steering, HeldUpMainLoopFallsSilentAndSendsNoLateReplies)
{
    ASSERT_TRUE(wait_until([] { return is_served(PELKIN_MONITOR_SOCKET_PATH); }));
    stop_main_thread();
    const time_t stopped = time(nullptr);
    ASSERT_TRUE(wait_until([&] { return time(nullptr) - stopped > PELKIN_STALE_AFTER_S; }));
    const unsigned long before = cpu_ticks(daemon.pid);
    for (size_t i = 1; i <= 3; i++) {
        ASSERT_TRUE(requester.send(probe(), PELKIN_MONITOR_SOCKET_PATH));
        EXPECT_TRUE(log.wait_for("Pelkin has been timeout for ", i));
    }
    EXPECT_EQ(requester.receive(1), std::nullopt);
    EXPECT_EQ(log.count("Pelkin has been timeout for "),
              3u); // one a probe: the thread does not spin
    EXPECT_LE(cpu_ticks(daemon.pid) - before, 20u);

    resume_main_thread();
    wait_for_pass(); // the next probe is answered then, and only that one
    ASSERT_TRUE(requester.send(probe(), PELKIN_MONITOR_SOCKET_PATH));
    EXPECT_EQ(requester.receive(), expected_reply());
    EXPECT_EQ(requester.receive(1), std::nullopt);
}

TEST(MonitorPath, StaleFileIsReplacedAndAnUnusablePathOnlyMeansNoReplies)
{
    write_file(PELKIN_MONITOR_SOCKET_PATH, "left over");
    {
        const Daemon daemon;
        EXPECT_TRUE(wait_until([] { return is_served(PELKIN_MONITOR_SOCKET_PATH); }));
    }
    (void)unlink(PELKIN_MONITOR_SOCKET_PATH);
    ASSERT_EQ(mkdir(PELKIN_MONITOR_SOCKET_PATH, 0700), 0);
    const Server server({}, serve_bodies([](const std::string &) { return "ok"; }));
    const Requester requester;
    Daemon daemon;
    EXPECT_EQ(requester.ask({.url = "http://127.0.0.1/"}), "ok");
    EXPECT_TRUE(daemon.alive());
    (void)rmdir(PELKIN_MONITOR_SOCKET_PATH);
}

} // namespace
