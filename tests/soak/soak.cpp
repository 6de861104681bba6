/*
 * The soak: a daemon under mixed load and disturbance for some minutes, and the proof that it lost
 * nothing, mixed nothing up and left nothing behind. See CONTRIBUTING.md for how to run it.
 */
#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/daemon/signals.h"
#include "tests/soak/soak.h"
#include "tests/support/daemon.h"
#include "wechat/follow_check.h"

namespace soak
{

static const double PROGRESS_PERIOD_S = 10;
static const uint32_t WATCH_PERIOD_MS = 500;
static const uint32_t PROBE_PERIOD_MS = 500;
static const uint32_t DISTURBANCE_PERIOD_MS = 1000;
static const double ANSWERED_WITHIN_S = 400; // clients wait for three minutes and a pass
// The clock of the workers counts whole minutes.
static const double RELEASED_WITHIN_S = 13 * 60;
// What the library, its tables and the allocator's arenas (eight a processor, filled by workers
// that come and go) keep for good, beside the memory before the load. A kilobyte lost with every
// request is more than this in a minute.
static const size_t KEPT_KIB = 8 * 1024;

static std::atomic<uint64_t> lines_served; // that the log service got

/* The service that takes the daemon's log; the daemon registers with it at its start. */
using LogService = std::unique_ptr<support::DatagramReader>;

static LogService start_log_service()
{
    return std::make_unique<support::DatagramReader>(SMART_TTY_SERVICE_PATH,
                                                     [](std::string_view) { lines_served++; });
}

struct Figures {
    size_t threads;
    size_t descriptors;
    size_t semaphore_sets;
    size_t resident_kib;
};

struct Run {
    LogService service = start_log_service();
    support::DatagramReader system_log{"/dev/log", take_log_line};
    support::Daemon daemon;
    Servers servers{targets().size()};
    Figures before{};
    size_t peak_kib = 0;
    double progress_at = 0;
};

uint32_t mixed(uint64_t value)
{
    std::seed_seq sequence{(uint32_t)value, (uint32_t)(value >> 32), support::seed()};
    uint32_t number = 0;
    sequence.generate(&number, &number + 1);
    return number;
}

void rest(const std::stop_token &ending, uint32_t milliseconds)
{
    const double end = now_s() + milliseconds / 1e3;
    while (now_s() < end && !ending.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// The daemon must find the new one by itself, and does so with its next line.
static void restart_log_service(LogService &service, const std::stop_token &ending)
{
    service.reset();
    rest(ending, 200);
    const uint64_t before = lines_served;
    service = start_log_service();
    count("restarts of the log service");
    if (!support::wait_until([&] { return lines_served > before; })) {
        report_fault("the log service gets nothing after its restart");
    }
}

static void probe(const std::stop_token &ending)
{
    const support::Requester prober("/tmp/vokmon");
    while (!ending.stop_requested()) {
        const bool sent =
            prober.send(support::message(VOKMON_MSG_PROBE, ""), PELKIN_MONITOR_SOCKET_PATH);
        const std::string reply = sent ? prober.receive().value_or("") : "";
        ipc_msg_hdr header = {};
        (void)reply.copy((char *)&header, sizeof header);
        if (reply.size() != sizeof header || header.msg_id != VOKMON_MSG_PROBE_REPLY) {
            report_fault("a probe is not answered");
        }
        count("probes");
        rest(ending, PROBE_PERIOD_MS);
    }
}

// Waits for the main loop to confirm: two at once would be one.
static void signal_and_wait(pid_t daemon, int number, const char *confirmation)
{
    const uint64_t before = counted(confirmation);
    (void)kill(daemon, number);
    if (!support::wait_until([&] { return counted(confirmation) > before; })) {
        report_fault("signal " + std::to_string(number) + " is not confirmed");
    }
}

static void set_switches(pid_t daemon, bool ignore_requests, bool ignore_results)
{
    const std::pair<const char *, bool> markers[] = {
        {PELKIN_IGNORE_VERIFICATION_FILE, ignore_requests},
        {PELKIN_IGNORE_RESULT_FILE, ignore_results}};
    set_ignoring(true); // until the daemon has told
    for (const auto &[path, on] : markers) {
        on ? support::write_file(path, "") : (void)unlink(path);
    }
    signal_and_wait(daemon, SIGUSR2, "received SIGUSR2");
    set_ignoring(ignore_requests || ignore_results);
}

static void disturb(const std::stop_token &ending, pid_t daemon, LogService &service,
                    Servers &servers)
{
    std::minstd_rand random(support::seed());
    while (!ending.stop_requested()) {
        const size_t target = random() % servers.size();
        rest(ending, DISTURBANCE_PERIOD_MS);
        switch (random() % 10) {
        case 0:
        case 1:
        case 2:
            signal_and_wait(daemon, SIGUSR1, "received SIGUSR1");
            break;
        case 3: // mostly off, or there would be nothing to verify
            set_switches(daemon, random() % 4 == 0, random() % 4 == 0);
            break;
        case 4:
        case 5:
            (void)kill(daemon, SIGCHLD);
            break;
        case 6:
            restart_log_service(service, ending);
            break;
        default:
            if (targets()[target].temper == Temper::FICKLE) {
                servers[target]->stop();
                rest(ending, 10 + (uint32_t)random() % 1500);
                start_server(servers, target);
                count("restarts of a server");
            }
        }
        count("disturbances");
    }
    set_switches(daemon, false, false);
}

static Figures figures_of(pid_t pid)
{
    return {support::count_threads(pid), support::count_descriptors(pid),
            support::count_semaphore_sets(), support::resident_kib(pid)};
}

static bool has_dumps()
{
    std::error_code error;
    const std::filesystem::directory_iterator dumps("/etc/quorvane/dump", error);
    return !error && dumps != std::filesystem::directory_iterator();
}

// Watches the daemon until `is_done` holds or the time is over. False when it must not go on.
static bool watch_until(Run &run, const char *phase, double end,
                        const std::function<bool()> &is_done)
{
    while (now_s() < end && !is_done()) {
        if (!run.daemon.alive() || has_dumps()) {
            report_fault("the daemon crashed: " + run.daemon.error_text());
            return false;
        }
        const Figures now = figures_of(run.daemon.pid);
        run.peak_kib = std::max(run.peak_kib, now.resident_kib);
        if (now_s() >= run.progress_at) {
            run.progress_at = now_s() + PROGRESS_PERIOD_S;
            std::printf("%6.0f s %s: %" PRIu64 " requests, %" PRIu64
                        " answered, %zu open; %zu threads, %zu descriptors, %zu KiB, %zu faults\n",
                        now_s(), phase, counted("requests"), counted("requests answered"),
                        count_open(), now.threads, now.descriptors, now.resident_kib,
                        fault_count());
            (void)std::fflush(stdout);
        }
        rest({}, WATCH_PERIOD_MS);
    }
    return true;
}

static void expect_equal(uint64_t is, uint64_t expected, const char *what)
{
    if (is != expected) {
        report_fault(std::string(what) + ": " + std::to_string(is) + ", expected " +
                     std::to_string(expected));
    }
}

static void compare_figures(Run &run)
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

// Load, the end of what is under way, and the release of all workers.
static void soak_for(Run &run, double minutes)
{
    std::atomic<bool> is_loading{true};
    const std::jthread prober(probe);
    const std::jthread readers([&](const std::stop_token &end) { run_readers(end, is_loading); });
    std::jthread disturber([&run](const std::stop_token &end) {
        disturb(end, run.daemon.pid, run.service, run.servers);
    });
    if (!watch_until(run, "load", now_s() + minutes * 60, [] { return false; })) {
        return;
    }
    is_loading = false;
    disturber.request_stop();
    disturber.join();
    if (!watch_until(run, "drain", now_s() + ANSWERED_WITHIN_S, [] { return count_open() == 0; })) {
        return;
    }
    report_open();
    compare_malformed();
    const auto is_released = [&run] {
        return support::count_threads(run.daemon.pid) == run.before.threads;
    };
    if (watch_until(run, "release", now_s() + RELEASED_WITHIN_S, is_released)) {
        compare_figures(run);
    }
    take_files(true);
}

static void write_hosts()
{
    std::string hosts = "127.0.0.1 localhost\n";
    for (const Target &target : targets()) {
        if (target.host != target.address && !target.address.empty()) {
            hosts += target.address + " " + target.host + "\n";
        }
    }
    support::write_file("/etc/hosts", hosts);
}

static bool run_for(double minutes)
{
    Run run;
    for (size_t i = 0; i < targets().size(); i++) {
        if (targets()[i].temper != Temper::ABSENT) {
            start_server(run.servers, i);
        }
    }
    support::write_file(PELKIN_LEVEL_FILE, "7");
    signal_and_wait(run.daemon.pid, SIGUSR1, "received SIGUSR1");
    (void)support::wait_until([] { return support::is_served(PELKIN_MONITOR_SOCKET_PATH); });
    run.before = figures_of(run.daemon.pid);
    soak_for(run, minutes);
    std::printf("%s", summary().c_str());
    return fault_count() == 0;
}

} // namespace soak

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const double minutes = argc > 1 ? std::atof(argv[1]) : 5;
    if (minutes <= 0) {
        std::printf("usage: %s [MINUTES]\n", argv[0]);
        return 2;
    }
    (void)support::seed();
    soak::write_hosts();
    std::filesystem::create_directory("/tmp/answers");
    const bool is_well = soak::run_for(minutes) &&
                         !testing::UnitTest::GetInstance()->Failed(); // nor the daemon's end
    std::printf("%s after %.0f s, %zu faults\n", is_well ? "all is well" : "FAILED", soak::now_s(),
                soak::fault_count());
    return is_well ? 0 : 1;
}
