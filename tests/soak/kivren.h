/* The station manager: takes the daemon's reports and removals, is deaf or away now and then. */
#ifndef PELKIN_TESTS_SOAK_KIVREN_H
#define PELKIN_TESTS_SOAK_KIVREN_H

#include <atomic>
#include <random>
#include <thread>

#include "tests/soak/follow_checks.h"
#include "tests/soak/ledger.h"
#include "tests/soak/seat.h"

namespace soak
{

struct Kivren {
    Kivren(Ledger *ledger, FollowChecks *checks);
    ~Kivren();
    Kivren(const Kivren &) = delete;

    Ledger *ledger;
    FollowChecks *checks;
    std::atomic<bool> is_calm{false}; // stays, and reads
    std::atomic<bool> is_ending{false};
    std::atomic<uint64_t> reports{0};
    std::atomic<uint64_t> removals{0};
    std::atomic<uint64_t> restarts{0};

    /* Of the thread. */
    Seat seat;
    std::minstd_rand random;
    double changes_at = 10;
    bool is_deaf = false;
    std::thread thread;
};

} // namespace soak
#endif
