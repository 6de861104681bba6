/* The scripted servers, each with an address of its own, and their restarts. */
#ifndef PELKIN_TESTS_SOAK_SERVERS_H
#define PELKIN_TESTS_SOAK_SERVERS_H

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "tests/soak/ledger.h"
#include "tests/support/server.h"

namespace soak
{

struct Servers {
    explicit Servers(Ledger *ledger);
    ~Servers();
    Servers(const Servers &) = delete;

    /* Ends the restarts, with all servers up. Once. */
    void end_restarts();

    Ledger *ledger;
    std::vector<std::unique_ptr<support::Server>> servers; // by target; the restarter's own
    std::atomic<bool> is_ending{false};
    std::atomic<size_t> restarts{0};
    std::thread restarter;
};

} // namespace soak
#endif
