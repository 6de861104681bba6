#include "tests/support/client.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

static int open_output(const std::string &path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

Client::Client(const std::vector<std::string> &arguments, int out_fd)
{
    static int started = 0;
    const std::string stem = "/tmp/client-" + std::to_string(++started);
    out_path = stem + ".out";
    error_path = stem + ".error";
    const char *path = std::getenv("PELKINCTL");
    std::vector<char *> words = {const_cast<char *>(path != nullptr ? path : "pelkinctl")};
    for (const std::string &argument : arguments) {
        words.push_back(const_cast<char *>(argument.c_str()));
    }
    words.push_back(nullptr);
    const int out = out_fd >= 0 ? dup(out_fd) : open_output(out_path);
    const int error = open_output(error_path);
    pid = fork();
    if (pid == 0) {
        (void)dup2(out, STDOUT_FILENO);
        (void)dup2(error, STDERR_FILENO);
        (void)execvp(words[0], words.data());
        _exit(127);
    }
    (void)close(out);
    (void)close(error);
}

Client::~Client()
{
    if (!ended) {
        (void)kill(pid, SIGTERM);
        (void)waitpid(pid, nullptr, 0);
    }
}

int Client::wait()
{
    int status = 0;
    ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Client::out() const
{
    return read_file(out_path);
}

std::string Client::error() const
{
    return read_file(error_path);
}

Outcome run_client(const std::vector<std::string> &arguments)
{
    Client client(arguments);
    const int status = client.wait();
    return {status, client.out(), client.error()};
}

std::vector<std::string> reply_sockets()
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        if (entry.path().filename().string().rfind("pelkinctl-", 0) == 0) {
            names.push_back(entry.path());
        }
    }
    return names;
}

} // namespace support
