/*
 * The soak: a daemon under mixed load and disturbance for some minutes, and the proof that it lost
 * nothing, mixed nothing up and left nothing behind. See CONTRIBUTING.md for how to run it.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "core/monitor.h"
#include "tests/soak/faults.h"
#include "tests/soak/kivren.h"
#include "tests/soak/requesters.h"
#include "tests/soak/servers.h"
#include "tests/soak/steering.h"
#include "tests/support/daemon.h"
#include "wechat/follow_check.h"

using namespace soak;

static const double PROGRESS_PERIOD_S = 10;
static const double WATCH_PERIOD_S = 0.5;
// Thirty requests that wait for one server, each with four attempts of ten seconds at the worst.
static const double EXPLAINED_WITHIN_S = 1300;
// The clock of the workers counts whole minutes.
static const double RELEASED_WITHIN_S = 13 * 60;
// What the library, its tables and the allocator's arenas (eight a processor, filled by workers
// that come and go) keep for good, beside the memory before the load. A kilobyte lost with every
// request is more than this in a minute.
static const size_t KEPT_KIB = 8 * 1024;

namespace
{

struct Figures {
    size_t threads;
    size_t descriptors;
    size_t semaphore_sets;
    size_t resident_kib;
};

struct Run {
    Ledger ledger{REQUESTERS};
    FollowChecks checks;
    LogWatch watch{&ledger, &checks};
    LogService service;
    support::Daemon daemon;
    Servers servers{&ledger};
    Kivren kivren{&ledger, &checks};
    Steering steering{daemon.pid, &watch, &service};
    Figures before{};
    size_t peak_kib = 0;
    double progress_at = 0;
};

Figures figures_of(pid_t pid)
{
    return {support::count_threads(pid), support::count_descriptors(pid),
            support::count_semaphore_sets(), support::resident_kib(pid)};
}

void print_progress(Run &run, const char *phase)
{
    const Figures now = figures_of(run.daemon.pid);
    const Totals totals = run.ledger.totals();
    std::printf("%6.0f s %s: %" PRIu64 " requests sent, %" PRIu64 " answered, %" PRIu64
                " explained, %" PRIu64 " open, %" PRIu64
                " log lines; %zu threads, %zu descriptors, %zu KiB, %zu faults\n",
                now_s(), phase, totals.sent, totals.answered, totals.explained, totals.open,
                run.watch.counts.lines.load(), now.threads, now.descriptors, now.resident_kib,
                fault_count());
    (void)std::fflush(stdout);
}

bool has_dumps()
{
    std::error_code error;
    const std::filesystem::directory_iterator dumps("/etc/quorvane/dump", error);
    return !error && dumps != std::filesystem::directory_iterator();
}

// Watches the daemon until `is_done` holds or the time is over. False when it must not go on.
bool watch_until(Run &run, const char *phase, double end, const std::function<bool()> &is_done)
{
    while (now_s() < end && !is_done()) {
        if (!run.daemon.alive() || has_dumps()) {
            report_fault("the daemon crashed: " + run.daemon.error_text());
            return false;
        }
        run.peak_kib = std::max(run.peak_kib, support::resident_kib(run.daemon.pid));
        if (now_s() >= run.progress_at) {
            run.progress_at = now_s() + PROGRESS_PERIOD_S;
            print_progress(run, phase);
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(WATCH_PERIOD_S));
    }
    return true;
}

void expect_equal(uint64_t is, uint64_t expected, const char *what)
{
    if (is != expected) {
        report_fault(std::string(what) + ": " + std::to_string(is) + ", expected " +
                     std::to_string(expected));
    }
}

// Everything that the daemon's messages count and others counted too.
void compare_counts(Run &run, const Malformed &malformed)
{
    const std::lock_guard<std::mutex> lock(run.ledger.guard);
    const LineCounts &counts = run.watch.counts;
    const uint64_t to_kivren_failed = counts.reports_failed + counts.removals_failed;
    const auto outcome = [&run](Outcome which) { return run.ledger.outcomes[(size_t)which]; };
    expect_equal(counts.undelivered, outcome(Outcome::UNDELIVERED) + to_kivren_failed,
                 "failed deliveries");
    expect_equal(run.kivren.reports, counts.reports_sent, "reports that kivren got");
    expect_equal(run.kivren.removals, counts.removals_tried - counts.removals_failed,
                 "removals that kivren got");
    expect_equal(counts.exchanges_failed + counts.connections_failed, run.ledger.ends_by_failure,
                 "failures that end a worker");
    expect_equal(counts.mismatched, malformed.mismatched, "mismatched datagrams");
    expect_equal(counts.short_check, malformed.short_check, "short follow checks");
    expect_equal(counts.replies, malformed.replies, "replies of kivren passed over");
}

void compare_figures(Run &run)
{
    const Figures after = figures_of(run.daemon.pid);
    expect_equal(after.threads, run.before.threads, "threads");
    expect_equal(after.descriptors, run.before.descriptors, "descriptors");
    expect_equal(after.semaphore_sets, run.before.semaphore_sets, "semaphore sets");
    if (!support::is_sanitized() && after.resident_kib > run.before.resident_kib + KEPT_KIB) {
        report_fault("resident memory: " + std::to_string(after.resident_kib) + " KiB, before " +
                     std::to_string(run.before.resident_kib) + " KiB");
    }
    std::printf("before, at most, after: %zu, %zu, %zu KiB resident\n", run.before.resident_kib,
                run.peak_kib, after.resident_kib);
}

void print_summary(Run &run)
{
    std::printf("%s%s", run.ledger.summary().c_str(), run.checks.summary().c_str());
    std::printf("to kivren: %" PRIu64 " reports, %" PRIu64 " removals; kivren restarted %" PRIu64
                " times\n",
                run.kivren.reports.load(), run.kivren.removals.load(), run.kivren.restarts.load());
    std::printf("servers restarted %zu times, the log service %" PRIu64 " times (it got %" PRIu64
                " lines); %" PRIu64 " "
                "signals; %" PRIu64 " probes\n",
                run.servers.restarts.load(), run.service.restarts.load(), run.service.lines.load(),
                run.steering.signals.load(), run.steering.probes.load());
}

// Load, the end of what is under way, and the release of all workers.
void soak_for(Run &run, double minutes)
{
    Requesters requesters(&run.ledger, &run.checks);
    const auto never = [] { return false; };
    if (!watch_until(run, "load", now_s() + minutes * 60, never)) {
        return;
    }
    requesters.end_load();
    run.servers.end_restarts();
    run.steering.end_disturbances();
    run.kivren.is_calm = true;
    run.checks.is_calm = true;
    const auto nothing_open = [&run] {
        return run.ledger.count_open() + run.checks.count_open() == 0;
    };
    if (!watch_until(run, "drain", now_s() + EXPLAINED_WITHIN_S, nothing_open)) {
        return;
    }
    if (!nothing_open()) {
        report_fault("unexplained: " + std::to_string(run.ledger.count_open()) + " requests, " +
                     std::to_string(run.checks.count_open()) + " follow checks" +
                     run.ledger.describe_open(20));
    }
    compare_counts(run, requesters.malformed);
    const auto released = [&run] {
        return support::count_threads(run.daemon.pid) == run.before.threads;
    };
    if (watch_until(run, "release", now_s() + RELEASED_WITHIN_S, released)) {
        compare_figures(run);
    }
}

void write_hosts()
{
    std::string hosts = "127.0.0.1 localhost\n127.44.0.1 " PELKIN_WECHAT_API_HOST "\n";
    for (const Target &target : targets()) {
        if (target.host != target.address && !target.address.empty()) {
            hosts += target.address + " " + target.host + "\n";
        }
    }
    support::write_file("/etc/hosts", hosts);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const double minutes = argc > 1 ? std::atof(argv[1]) : 5;
    if (minutes <= 0) {
        std::printf("usage: %s [MINUTES]\n", argv[0]);
        return 2;
    }
    (void)support::seed();
    write_hosts();
    std::filesystem::create_directory("/tmp/answers");
    {
        Run run;
        run.before = figures_of(run.daemon.pid);
        soak_for(run, minutes);
        print_summary(run);
    }
    const bool is_well = fault_count() == 0 && !testing::UnitTest::GetInstance()->Failed();
    std::printf("%s after %.0f s, %zu faults\n", is_well ? "all is well" : "FAILED", now_s(),
                fault_count());
    return is_well ? 0 : 1;
}
