#include "tests/soak/steering.h"

#include <csignal>
#include <memory>
#include <random>
#include <unistd.h>

#include "core/monitor.h"
#include "core/signals.h"
#include "tests/soak/faults.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"

namespace soak
{

static const int PROBE_PERIOD_MS = 500;
static const double SWITCH_LASTS_S = 30;

static void probe(Steering *steering)
{
    const support::Requester prober("/tmp/vokmon");
    while (!steering->is_ending) {
        const bool sent =
            prober.send(support::message(VOKMON_MSG_PROBE, ""), PELKIN_MONITOR_SOCKET_PATH);
        const std::string reply = sent ? prober.receive().value_or("") : "";
        ipc_msg_hdr header = {};
        (void)reply.copy((char *)&header, sizeof header);
        if (reply.size() != sizeof header || header.msg_id != VOKMON_MSG_PROBE_REPLY) {
            report_fault("a probe is not answered");
        }
        steering->probes++;
        std::this_thread::sleep_for(std::chrono::milliseconds(PROBE_PERIOD_MS));
    }
}

// Sends it and waits for the main loop to confirm: two at once would be one.
static void signal_and_wait(Steering *steering, int number, const std::atomic<uint64_t> &confirmed)
{
    const uint64_t before = confirmed;
    (void)kill(steering->daemon, number);
    steering->signals++;
    if (!support::wait_until([&] { return confirmed > before; })) {
        report_fault("signal " + std::to_string(number) + " is not confirmed");
    }
}

static void set_marker(const char *path, bool on)
{
    if (on) {
        support::write_file(path, "");
    } else {
        (void)unlink(path);
    }
}

// A worker may act on the second switch before the main thread has told of it, and a little after.
static void allow_ignored_results(Ledger *ledger, double until)
{
    const std::lock_guard<std::mutex> lock(ledger->guard);
    ledger->results_ignored_until = until;
}

static void set_switches(Steering *steering, bool ignore_requests, bool ignore_results)
{
    if (ignore_results) {
        allow_ignored_results(steering->watch->ledger, 1e9);
    }
    set_marker(PELKIN_IGNORE_VERIFICATION_FILE, ignore_requests);
    set_marker(PELKIN_IGNORE_RESULT_FILE, ignore_results);
    signal_and_wait(steering, SIGUSR2, steering->watch->counts.switches_set);
    if (!ignore_results && steering->is_ignoring_results) {
        allow_ignored_results(steering->watch->ledger, now_s() + SWITCH_LASTS_S);
    }
    steering->is_ignoring_results = ignore_results;
}

LogService::LogService()
{
    start();
}

void LogService::start()
{
    reader = std::make_unique<support::DatagramReader>(SMART_TTY_SERVICE_PATH,
                                                       [this](std::string_view) { lines++; });
}

// The daemon must find the new one by itself, and does so with its next line.
static void restart_service(LogService *service)
{
    service->reader.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const uint64_t before = service->lines;
    service->start();
    service->restarts++;
    if (!support::wait_until([&] { return service->lines > before; })) {
        report_fault("the log service gets nothing after its restart");
    }
}

static void disturb(Steering *steering)
{
    std::minstd_rand random(support::seed());
    while (!steering->is_calm) {
        for (int waited = 0; waited < 1000 && !steering->is_calm; waited += 20) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const uint32_t one = (uint32_t)random() % 10;
        if (one < 3) {
            signal_and_wait(steering, SIGUSR1, steering->watch->counts.levels_set);
        } else if (one < 6) {
            // Mostly off, or there would be nothing to verify.
            set_switches(steering, random() % 4 == 0, random() % 4 == 0);
        } else if (one < 9) {
            (void)kill(steering->daemon, SIGCHLD);
            steering->signals++;
        } else {
            restart_service(steering->service);
        }
    }
    set_switches(steering, false, false);
    while (!steering->is_ending) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

Steering::Steering(pid_t with_daemon, const LogWatch *with_watch, LogService *with_service)
    : daemon(with_daemon), watch(with_watch), service(with_service)
{
    support::write_file(PELKIN_LEVEL_FILE, "7");
    signal_and_wait(this, SIGUSR1, watch->counts.levels_set);
    (void)support::wait_until([] { return support::is_served(PELKIN_MONITOR_SOCKET_PATH); });
    prober = std::thread(probe, this);
    disturber = std::thread(disturb, this);
}

void Steering::end_disturbances()
{
    is_calm = true;
}

Steering::~Steering()
{
    is_calm = true;
    is_ending = true;
    prober.join();
    disturber.join();
}

} // namespace soak
