/*
 * The modules that ask: what they send, how fast, and their moods. One thread serves them all; what
 * they have outstanding bounds the load, so that a slow machine is asked less.
 */
#ifndef PELKIN_TESTS_SOAK_REQUESTERS_H
#define PELKIN_TESTS_SOAK_REQUESTERS_H

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "tests/soak/follow_checks.h"
#include "tests/soak/ledger.h"
#include "tests/soak/seat.h"

namespace soak
{

constexpr size_t REQUESTERS = 20;

enum class Mood {
    READING,
    DEAF, // doesn't read
    GONE, // has left, and comes back
};

struct Module {
    Seat seat;
    Mood mood = Mood::READING;
    double mood_ends_at = 0;
};

/* Datagrams that the daemon drops or passes over, by the message that it has for them. */
struct Malformed {
    std::atomic<uint64_t> mismatched{0};
    std::atomic<uint64_t> short_check{0};
    std::atomic<uint64_t> replies{0};
};

struct Requesters {
    Requesters(Ledger *ledger, FollowChecks *checks);
    ~Requesters();
    Requesters(const Requesters &) = delete;

    /* From now on nothing is sent, and everybody reads. */
    void end_load();

    Ledger *ledger;
    FollowChecks *checks;
    Malformed malformed;
    std::atomic<bool> is_loading{true};
    std::atomic<bool> is_ending{false};

    /* Of the thread. */
    std::vector<Module> modules;
    std::minstd_rand random;
    uint32_t next = FIRST_REQUEST;
    double next_burst_at = 5;
    double sent_up_to = 0; // the time up to which the load's rate has been used up
    std::thread thread;
};

} // namespace soak
#endif
