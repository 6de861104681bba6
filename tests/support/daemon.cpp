#include "tests/support/daemon.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/ipc_msg.h"

namespace support
{

std::string daemon_path()
{
    const char *path = std::getenv("PELKIN");
    return path != nullptr ? path : "pelkin";
}

static std::vector<std::string> with_daemon_path(std::vector<std::string> command)
{
    for (std::string &word : command) {
        const size_t at = word.find("PELKIN");
        if (at != std::string::npos) {
            word.replace(at, std::strlen("PELKIN"), daemon_path());
        }
    }
    return command;
}

// Everything that allocates happens before the fork: other threads may hold the allocator's lock.
static pid_t spawn(const std::vector<std::string> &command, const std::string &error_path)
{
    std::vector<char *> arguments;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const int error_fd = open(error_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const pid_t child = fork();
    if (child == 0) {
        (void)dup2(error_fd, STDERR_FILENO);
        (void)signal(SIGPIPE, SIG_DFL); // the test ignores it; the daemon must do so by itself
        (void)execvp(arguments[0], arguments.data());
        _exit(127);
    }
    (void)close(error_fd);
    return child;
}

Daemon::Daemon(const std::vector<std::string> &command, bool wait_ready)
{
    static int started = 0;
    error_path = "/tmp/daemon-stderr-" + std::to_string(getpid()) + "-" + std::to_string(++started);
    pid = spawn(with_daemon_path(command), error_path);
    if (wait_ready) {
        const bool ready = wait_until([this] { return is_served(PELKIN_SOCKET_PATH) || !alive(); });
        EXPECT_TRUE(ready && alive()) << "daemon not ready: " << error_text();
    }
}

bool Daemon::alive()
{
    if (!ended && waitpid(pid, &status, WNOHANG) == pid) {
        ended = true;
    }
    return !ended;
}

int Daemon::wait_for_end(int seconds)
{
    end_expected = true;
    return wait_until([this] { return !alive(); }, seconds) ? status : -1;
}

// Of a line of the table, the second word is the id.
static std::vector<int> semaphore_sets()
{
    std::vector<int> ids;
    std::istringstream table(read_file("/proc/sysvipc/sem"));
    std::string line;
    (void)std::getline(table, line); // a heading
    while (std::getline(table, line)) {
        int key = 0;
        std::istringstream(line) >> key >> ids.emplace_back();
    }
    return ids;
}

void Daemon::kill_now()
{
    end_expected = true;
    if (alive()) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, &status, 0);
        ended = true;
        for (const int id : semaphore_sets()) {
            (void)semctl(id, 0, IPC_RMID);
        }
    }
}

Daemon::~Daemon()
{
    EXPECT_TRUE(alive() || end_expected)
        << "the daemon ended, wait status " << status << ": " << error_text();
    kill_now();
    const std::string text = error_text();
    EXPECT_EQ(text.find("Sanitizer"), std::string::npos) << text;
    EXPECT_EQ(text.find("runtime error:"), std::string::npos) << text;
}

void Daemon::set_trace_level(int level, DatagramSink &log)
{
    const std::string confirmation = "set log_level = " + std::to_string(level);
    const size_t before = log.count(confirmation);
    write_file("/tmp/pelkinLogLevel", std::to_string(level));
    (void)kill(pid, SIGUSR1);
    if (level >= 5) {
        EXPECT_TRUE(log.wait_for(confirmation, before + 1));
    }
}

std::string Daemon::error_text() const
{
    return read_file(error_path);
}

bool is_served(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool served = connect(fd, (const sockaddr *)&address, sizeof address) == 0;
    (void)close(fd);
    return served;
}

// None when the process has gone.
static size_t count_entries(const std::string &directory)
{
    std::error_code error; // the process may go in the middle
    size_t entries = 0;
    std::filesystem::directory_iterator entry(directory, error);
    for (; entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        entries++;
    }
    return entries;
}

size_t count_descriptors(pid_t pid)
{
    return count_entries("/proc/" + std::to_string(pid) + "/fd");
}

size_t count_threads(pid_t pid)
{
    return count_entries("/proc/" + std::to_string(pid) + "/task");
}

size_t resident_kib(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("RssAnon:");
    return at == std::string::npos
               ? 0
               : std::strtoul(status.c_str() + at + std::strlen("RssAnon:"), nullptr, 10);
}

size_t count_semaphore_sets()
{
    return semaphore_sets().size();
}

bool is_sanitized()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

} // namespace support
