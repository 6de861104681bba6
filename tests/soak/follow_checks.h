/*
 * Clients whose following is to be checked: registered, answered for by the API's server, and
 * followed through the log until the daemon has forgotten them. Any thread.
 */
#ifndef PELKIN_TESTS_SOAK_FOLLOW_CHECKS_H
#define PELKIN_TESTS_SOAK_FOLLOW_CHECKS_H

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/soak/plan.h"
#include "tests/support/server.h"

namespace soak
{

struct FollowClient {
    bool is_added = false;
    bool is_asked = false;       // of the API's server
    bool is_unchecked = false;   // "failed to check client"
    bool is_removed = false;     // kivren was asked to remove its station
    bool removal_failed = false; // "Failed to send del sta"
    bool is_freed = false;
};

struct FollowChecks {
    FollowChecks();

    /* A request for one more client. With withdraw() it was not sent after all. */
    std::string register_client();
    void withdraw_client();

    /* Of the log: what has happened to a client, each of it once. */
    void note(uint32_t number, bool FollowClient::*what);
    /* Of kivren. */
    void take_removal(uint32_t number);

    /* Clients that the daemon has forgotten: what kivren was to be told about them has been sent.
     */
    std::vector<uint32_t> list_freed();
    /* Looks whether kivren was told, once it has read everything. */
    void settle_freed(const std::vector<uint32_t> &numbers);

    size_t count_open();
    std::string summary();

    std::mutex guard; // of the ones below
    std::map<uint32_t, FollowClient> clients;
    uint32_t next = FIRST_CLIENT;
    size_t registered = 0;
    size_t removed = 0;
    size_t unchecked = 0;

    std::atomic<bool> is_calm{false}; // the API's server answers every time
    support::Server server;
};

} // namespace soak
#endif
