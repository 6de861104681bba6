/* The daemon as a process: found by its answer to a probe or its pid file, seen through /proc. */
#ifndef PELKIN_TOOLS_DAEMON_PROCESS_H
#define PELKIN_TOOLS_DAEMON_PROCESS_H

#include <optional>
#include <string>
#include <sys/types.h>

/* What there is to be signalled and looked at. */
struct daemon_process {
    pid_t pid = 0;       /* 0: none */
    std::string problem; /* why there is none, in words; "" when there is one */
};

/*
 * The process that has answered a probe, `answered`, if it is the daemon; otherwise (0, say) the
 * one that the pid file names, if that is the daemon: after a crash the file stays, and the number
 * may have become another program's. A second daemon that failed to start leaves its own there.
 */
daemon_process find_daemon(pid_t answered);

/*
 * Probes, finds the daemon by it, and sends the signal. Returns an exit status; a failure has been
 * said.
 */
int signal_daemon(int number, pid_t *pid);

/* A path under /proc/PID, and a whole file, none when it can't be opened. */
std::string proc_path(pid_t pid, const std::string &entry);
std::optional<std::string> read_text(const std::string &path);

/* Numbers of the process table; none where it did not tell. */
struct process_figures {
    std::optional<long> threads;
    std::optional<long> resident_kib;
    std::optional<long> descriptors; /* only the process's owner and root may see them */
};
process_figures read_figures(pid_t pid);

#endif
