/* pelkinctl as a child process. */
#ifndef PELKIN_TESTS_SUPPORT_CLIENT_H
#define PELKIN_TESTS_SUPPORT_CLIENT_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/wait.h"

namespace support
{

/*
 * Runs pelkinctl (PELKINCTL of the environment) with `arguments`. Its standard output goes to
 * `out_fd` if that is not negative, else to a file, as its standard error does. The destructor
 * terminates it, so that it leaves no socket to the next case.
 */
struct Client {
    explicit Client(const std::vector<std::string> &arguments, int out_fd = -1);
    ~Client();
    Client(const Client &) = delete;

    /* Waits for its end: its exit status, or 128 and the signal that ended it, or -1. */
    int wait();
    std::string out() const;
    std::string error() const;

    pid_t pid = -1;
    bool ended = false;
    std::string out_path;
    std::string error_path;
};

/* What one run of pelkinctl left. */
struct Outcome {
    int status;
    std::string out;
    std::string error;
};
Outcome run_client(const std::vector<std::string> &arguments);

/* Names in /tmp of the sockets that pelkinctl makes for answers. */
std::vector<std::string> reply_sockets();

} // namespace support
#endif
