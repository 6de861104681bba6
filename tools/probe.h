/* `pelkinctl probe` and `pelkinctl wait`: liveness probes, as the system monitor sends them. */
#ifndef PELKIN_TOOLS_PROBE_H
#define PELKIN_TOOLS_PROBE_H

#include <string>
#include <sys/types.h>

#include "core/daemon/monitor.h"

struct probe_command {
    double timeout_s = 2;
    std::string socket = PELKIN_MONITOR_SOCKET_PATH;
    bool json = false;
};

struct probe_result {
    int status = 0;           /* STATUS_DONE: answered */
    double answer_ms = 0;     /* time from sending to the answer; meaningful when answered */
    pid_t pid = 0;            /* who answered, by the kernel's word; 0 when it is not known */
    bool not_allowed = false; /* whether it lives is not known: this user may not ask */
    std::string problem;      /* what there is to be said when it has not answered */
};

/* Sends one probe from a socket of its own and waits for its answer. Says nothing. */
probe_result probe_daemon(const std::string &socket, double timeout_s);

/* "true", "false" or, where it is not known, "null". */
const char *json_alive(const probe_result &result);

int run_probe(const probe_command &command);

/* Until a probe is answered, whether or not there is a daemon yet. */
int run_wait(const probe_command &command);

#endif
