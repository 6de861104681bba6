/* The daemon as a process: found through its pid file, seen through /proc. */
#ifndef PELKIN_TOOLS_DAEMON_PROCESS_H
#define PELKIN_TOOLS_DAEMON_PROCESS_H

#include <optional>
#include <string>
#include <sys/types.h>

/* What the pid file leads to. */
struct daemon_process {
    pid_t pid = 0;       /* 0: none that could be signalled */
    std::string problem; /* why there is none, in words; "" when there is one */
};

/*
 * Reads the pid file and makes sure that the process of that number is the daemon: after a crash
 * the file stays, and the number may have become another program's.
 */
daemon_process find_daemon();

/* As find_daemon(), then sends the signal. Returns an exit status; a failure has been said. */
int signal_daemon(int number, pid_t *pid);

/* Numbers of the process table; none where it did not tell. */
struct process_figures {
    std::optional<long> threads;
    std::optional<long> resident_kib;
    std::optional<long> descriptors; /* only the process's owner and root may see them */
};
process_figures read_figures(pid_t pid);

#endif
