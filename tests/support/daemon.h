/* The real daemon as a child process, and what can be seen of a process from outside. */
#ifndef PELKIN_TESTS_SUPPORT_DAEMON_H
#define PELKIN_TESTS_SUPPORT_DAEMON_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/log_sink.h"

namespace support
{

/* Path of the daemon under test: PELKIN of the environment. */
std::string daemon_path();

/*
 * A child that runs `command`, "PELKIN" in it standing for the daemon's path; by default the daemon
 * alone. A wrapper must end as the daemon (`bash -c "ulimit -s 256; exec PELKIN"`, `strace -D ...
 * PELKIN`), so that `pid` is the daemon's. Its standard error goes to a file.
 *
 * The destructor kills it, and fails the test when the daemon had already ended without
 * wait_for_end() having been called, or when a sanitizer complained.
 */
struct Daemon {
    /* With `wait_ready` the constructor returns when the request socket is served. */
    explicit Daemon(const std::vector<std::string> &command = {"PELKIN"}, bool wait_ready = true);
    ~Daemon();
    Daemon(const Daemon &) = delete;

    bool alive();
    /* Waits for the process to end by itself: its wait status, or -1 when the deadline passed. */
    int wait_for_end(int seconds = DEADLINE_S);
    /* Kills it, waits for its end and removes the semaphore sets that it had no chance to remove.
     */
    void kill_now();
    /* Sets the trace level by file and signal; waits for `log` to confirm it when level >= 5. */
    void set_trace_level(int level, DatagramSink &log);
    std::string error_text() const;

    pid_t pid = -1;
    int status = -1; // once it has ended
    bool ended = false;
    bool end_expected = false;
    std::string error_path;
};

/* True when a process receives on the Unix datagram socket `path`. */
bool is_served(const std::string &path);

/*
 * Open descriptors, threads and resident memory of a process: the memory that is its own. How much
 * of its program and libraries is resident is the system's business.
 */
size_t count_descriptors(pid_t pid);
size_t count_threads(pid_t pid);
size_t resident_kib(pid_t pid);

/* System V semaphore sets of this IPC namespace. */
size_t count_semaphore_sets();

/* True in a build with address, undefined-behaviour or thread sanitizer: memory says nothing then.
 */
bool is_sanitized();

} // namespace support
#endif
