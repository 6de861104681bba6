/*
 * The daemon's workers, seen through /proc: a worker is a thread that is named after its server, as
 * far as a name of 15 characters goes. Its connection is found by the server's address, or because
 * one worker and one connection are left; where that doesn't tell, as with one host that is asked
 * over both schemes, it stays unknown.
 */
#ifndef PELKIN_TOOLS_WORKERS_H
#define PELKIN_TOOLS_WORKERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct worker_view {
    std::string server; /* the first 15 characters */
    std::string state;  /* idle, waiting, connecting, running, blocked, or sleeping */
    double age_s;
    double cpu_s;                      /* processor time so far */
    std::optional<uint16_t> port;      /* 80 or 443 */
    std::optional<uint64_t> in_flight; /* bytes that one side has sent and the other not taken */
};

/* The workers of the daemon `pid`, the oldest first. */
std::vector<worker_view> read_workers(pid_t pid);

/* Whether there is one for that host. */
bool has_worker(pid_t pid, const std::string &host);

/* A table with a heading; an array. */
std::string workers_text(const std::vector<worker_view> &workers);
std::string workers_json(const std::vector<worker_view> &workers);

#endif
