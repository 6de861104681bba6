/* `pelkinctl probe`: a liveness probe, as the system monitor sends it. */
#ifndef PELKIN_TOOLS_PROBE_H
#define PELKIN_TOOLS_PROBE_H

struct probe_command {
    double timeout_s = 2;
    bool json = false;
};

struct probe_result {
    int status;       /* STATUS_DONE: answered. Anything else has been said */
    double answer_ms; /* time from sending to the answer; meaningful when answered */
    bool not_allowed; /* whether it lives is not known: this user may not ask */
};

/* Sends one probe from a socket of its own and waits for its answer. */
probe_result probe_daemon(double timeout_s);

/* "true", "false" or, where it is not known, "null". */
const char *json_alive(const probe_result &result);

int run_probe(const probe_command &command);

#endif
