/*
 * What goes on around the load: liveness probes, each to be answered, signals, each to be
 * confirmed, and restarts of the log service.
 */
#ifndef PELKIN_TESTS_SOAK_STEERING_H
#define PELKIN_TESTS_SOAK_STEERING_H

#include <atomic>
#include <memory>
#include <sys/types.h>
#include <thread>

#include "tests/soak/log_watch.h"

namespace soak
{

/* Make it before the daemon, which registers at its start. */
struct LogService {
    LogService();
    void start();

    std::atomic<uint64_t> lines{0};
    std::atomic<uint64_t> restarts{0};
    std::unique_ptr<support::DatagramReader> reader;
};

struct Steering {
    /* Sets the daemon to debug level first: the log watch needs every line. */
    Steering(pid_t daemon, const LogWatch *watch, LogService *service);
    ~Steering();
    Steering(const Steering &) = delete;

    /* Ends signals and restarts, with both switches off. Once. Probes go on. */
    void end_disturbances();

    pid_t daemon;
    const LogWatch *watch;
    LogService *service;
    std::atomic<uint64_t> probes{0};
    std::atomic<uint64_t> signals{0};
    std::atomic<bool> is_calm{false};
    std::atomic<bool> is_ending{false};
    bool is_ignoring_results = false; // of the disturber
    std::thread prober;
    std::thread disturber;
};

} // namespace soak
#endif
