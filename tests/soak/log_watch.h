/*
 * The daemon's lines in the system log, read as they come and forgotten at once. The system log's
 * sender waits for room, so none is lost.
 */
#ifndef PELKIN_TESTS_SOAK_LOG_WATCH_H
#define PELKIN_TESTS_SOAK_LOG_WATCH_H

#include <atomic>
#include <string>
#include <string_view>

#include "tests/soak/follow_checks.h"
#include "tests/soak/ledger.h"
#include "tests/support/log_sink.h"

namespace soak
{

/* How often the daemon said what names no request. */
struct LineCounts {
    std::atomic<uint64_t> lines{0};
    std::atomic<uint64_t> exchanges_failed{0};
    std::atomic<uint64_t> connections_failed{0};
    std::atomic<uint64_t> undelivered{0};
    std::atomic<uint64_t> result_ignored{0};
    std::atomic<uint64_t> reports_sent{0};
    std::atomic<uint64_t> reports_failed{0};
    std::atomic<uint64_t> removals_tried{0};
    std::atomic<uint64_t> removals_failed{0};
    std::atomic<uint64_t> mismatched{0};
    std::atomic<uint64_t> short_check{0};
    std::atomic<uint64_t> replies{0};
    std::atomic<uint64_t> levels_set{0};
    std::atomic<uint64_t> switches_set{0};
};

struct LogWatch {
    LogWatch(Ledger *ledger, FollowChecks *checks);

    Ledger *ledger;
    FollowChecks *checks;
    LineCounts counts;
    support::DatagramReader reader; // last: its thread uses the others
};

} // namespace soak
#endif
