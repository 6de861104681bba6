/*
 * The daemon's log, as far as it tells of requests and of the servers' workers.
 *
 * The main thread names a request by its URL when it takes it, and its next lines are about the
 * same one. A worker is first in, first out: what it says that it has done is the oldest request of
 * its server, and that one's message id must fit. So a request that a later one overtakes is lost
 * without a reason; with a reason are those that a worker still had to do when a failure ended it.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>

#include "tests/soak/soak.h"

namespace soak
{

static const size_t LINES_KEPT = 20000;
static const size_t LONGEST_KEPT = 240;
static const size_t FAULTS_PRINTED = 30;
// Of workers that a slow server keeps busy: the task in progress and a hundred that wait for each,
// and as many requests as a burst has.
static const int WORKERS_MAX_SLOW = 4;

/* The workers of one server. */
struct Road {
    std::deque<uint32_t> queue; // requests taken and not done, oldest first
    int live = 0;               // "Add new" less "thread exit", of which the latter may come first
    int leaving = 0;            // released ones that have said so
};

// All with the guard held.
static std::vector<Road> roads(targets().size());
static uint32_t current; // the main thread's request
static double ignoring_until = -1;
static bool is_ignoring_requests; // as the main thread told
static std::deque<std::string> latest_lines;
static size_t faults;

void report_fault(const std::string &text)
{
    const Lock lock(ledger_guard);
    const char *path = std::getenv("SOAK_LOG");
    if (++faults <= FAULTS_PRINTED) {
        std::printf("FAULT at %.1f s (seed %u): %s\n", now_s(), support::seed(), text.c_str());
    }
    if (faults == 1 && path != nullptr) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        for (const std::string &line : latest_lines) {
            file << line << '\n';
        }
        std::printf("  the daemon's latest log lines are in %s\n", path);
    }
    (void)std::fflush(stdout);
}

size_t fault_count()
{
    const Lock lock(ledger_guard);
    return faults;
}

size_t count_queued(size_t target)
{
    const Lock lock(ledger_guard);
    return roads[target].queue.size();
}

void allow_ignoring(double until)
{
    const Lock lock(ledger_guard);
    ignoring_until = until;
}

bool may_be_ignored(double since)
{
    const Lock lock(ledger_guard);
    return ignoring_until >= since;
}

// ---- what is read; each gets what stands behind its key

static void take_request(std::string_view rest)
{
    current = number_behind(rest, "/r/");
    const Request *request = find(current);
    if (request != nullptr) {
        roads[request->target].queue.push_back(current);
    } else if (current != 0) {
        report_fault("a request is taken that is not under way: " + hex(current));
    }
}

static void lose(uint32_t number)
{
    if (find(number)->is_told) {
        report_fault("answered by a worker that had ended: " + describe(number));
    }
    close(number, "lost with their worker");
}

// The main thread has given its request up.
static void refuse(bool is_right, const char *outcome)
{
    const Request *request = find(current);
    if (request == nullptr || request->is_handed_over || request->attempts > 0 || !is_right) {
        report_fault(std::string(outcome) + " without a reason: " + describe(current));
    }
    if (request != nullptr) {
        (void)std::erase(roads[request->target].queue, current);
        close(current, outcome);
    }
}

static void ignore_request(std::string_view)
{
    const Request *request = find(current);
    refuse(request != nullptr && is_for_kivren(*request) && is_ignoring_requests,
           "ignored as verifications");
}

static void ignore_result(std::string_view)
{
    if (!may_be_ignored(now_s())) {
        report_fault("a verification's result is ignored without the switch");
    }
}

static void switch_over(std::string_view rest)
{
    is_ignoring_requests = number_behind(rest, "ignore_fb_token_verification = ") == 1;
}

static void fail_to_hand_over(std::string_view rest)
{
    if (rest.find("thread should exit already") == std::string_view::npos) {
        refuse(true, "with no room in the pipe");
    }
}

static void hand_over(std::string_view rest)
{
    Request *request = find(current);
    if (request == nullptr || request->is_finished) {
        return; // its worker was quicker than the main thread's message
    }
    const bool is_verification = request->msg_id != current;
    if (request->msg_id != number_behind(rest, "") || request->is_handed_over ||
        (is_verification && is_ignoring_requests)) {
        report_fault("handed over wrongly: " + describe(current));
    }
    request->is_handed_over = true;
    // A worker that says that it ends closes its pipe a little later.
    Road &road = roads[request->target];
    if (road.live <= 0) {
        (void)std::erase(road.queue, current);
        lose(current);
    }
}

// The target whose "host:port" stands there.
static size_t target_named(std::string_view rest)
{
    const std::string_view name = rest.substr(0, rest.find_first_of(" ,\n"));
    for (size_t i = 0; i < roads.size(); i++) {
        if (road_name(i) == name) {
            return i;
        }
    }
    report_fault("a worker of an unknown server: " + std::string(rest));
    return API;
}

static void add_worker(std::string_view rest)
{
    const size_t target = target_named(rest);
    const bool is_slow = targets()[target].temper == Temper::SLOW;
    if (++roads[target].live > (is_slow ? WORKERS_MAX_SLOW : 1)) {
        report_fault("one worker too many for " + road_name(target));
    }
}

static void end_worker(std::string_view rest)
{
    const size_t target = target_named(rest);
    const Temper temper = targets()[target].temper;
    Road &road = roads[target];
    road.live--;
    if (road.leaving > 0) {
        road.leaving--;
        return;
    }
    count("workers ended by a failure");
    if (temper == Temper::FAITHFUL || temper == Temper::SLOW) {
        report_fault("a worker of " + road_name(target) + " ends without a reason");
    }
    // What the main thread is about to hand over may go to the next worker.
    const bool is_last_kept = !road.queue.empty() && !find(road.queue.back())->is_handed_over;
    while (road.queue.size() > (is_last_kept ? 1 : 0)) {
        lose(road.queue.front());
        road.queue.pop_front();
    }
}

static void end_task(size_t target, uint32_t msg_id)
{
    Road &road = roads[target];
    const bool is_slow = targets()[target].temper == Temper::SLOW; // has several workers
    const auto done = std::find_if(road.queue.begin(), road.queue.end(),
                                   [msg_id](uint32_t one) { return find(one)->msg_id == msg_id; });
    if (done == road.queue.end() || (done != road.queue.begin() && !is_slow)) {
        report_fault("id " + hex(msg_id) + " is done at " + road_name(target) + " before " +
                     (road.queue.empty() ? "it was asked" : describe(road.queue.front())));
    }
    if (done != road.queue.end()) {
        Request &request = *find(*done);
        (void)road.queue.erase(done);
        finish(request);
    }
}

static void hear_worker(std::string_view rest)
{
    if (rest.find(" finished task ") != std::string_view::npos) {
        end_task(target_named(rest), number_behind(rest, "(msg_id:"));
    } else if (rest.find("write side pipe has been closed") != std::string_view::npos) {
        roads[target_named(rest)].leaving++;
    } else if (rest.find(" received a task") == std::string_view::npos) {
        report_fault("unexpected: thread " + std::string(rest));
    }
}

static void fail_to_connect(std::string_view rest)
{
    if (target_named(rest) != API) { // whose caller is no worker
        count("failures of workers");
    }
}

static void fail_exchange(std::string_view)
{
    count("failures of workers");
}

// Marks the request whose number begins the station's address: "mac", one more character, bytes.
template <bool Request::*mark> static void mark_request(std::string_view rest)
{
    static const size_t four_bytes = 11; // and the colons between them
    const size_t at = rest.find("mac");
    std::string digits(at == std::string_view::npos ? "" : rest.substr(at + 4, four_bytes));
    (void)std::erase(digits, ':');
    Request *request = find(number_behind(digits, ""));
    if (request == nullptr || !is_for_kivren(*request)) {
        report_fault("no request leads to: " + std::string(rest.substr(0, 100)));
        return;
    }
    request->*mark = true;
    if (mark == &Request::is_finished) {
        finish(*request);
    }
}

static void never(std::string_view rest)
{
    report_fault("the daemon says what it never should: " + std::string(rest.substr(0, 200)));
}

static const struct {
    std::string_view key; // the text begins with it, or the text behind its function; is counted
    void (*read)(std::string_view rest) = nullptr;
} readings[] = {
    {"thread RECOED["}, // the most frequent one first
    {"HTTP request message:", take_request},
    {"send task to thread OK. msg_id:", hand_over},
    {"failed to send task to thread.", fail_to_hand_over},
    {"Add new social_media_thread: ", add_worker},
    {"thread begin: "},
    {"thread exit: ", end_worker},
    {"thread list is blank"},
    {"thread ", hear_worker},
    {"ignore fb token verification.", ignore_request},
    {"ignore fb token verification result.", ignore_result},
    {"sta: ", mark_request<&Request::is_tried>},
    {"Send a del sta(", mark_request<&Request::is_tried>},
    {"failed to check client(", mark_request<&Request::is_unchecked>},
    {"to free client(", mark_request<&Request::is_finished>},
    {"perform_task():Send/Recv http(s) failed.", fail_exchange},
    {"social_media_thread():can't connect to ", fail_to_connect},
    {"failed to send ipc msg."},
    {"Failed to send del sta("},
    {"Success to send request to kivren."},
    {"Failed to send request to kivren."},
    {"received SIGUSR1"},
    {"received SIGUSR2", switch_over},
    {"Received length mismatched"},
    {"wechat check-follow request of "},
    {"this should be reply of del sta"},
    {"fill http task failed."},
    {"failed to create social_media_thread", never},
    {"make directory failed:", never},
    {"open file ", never},
    {"write fail.", never},
    {"create ssl fail.", never},
    {"create tcp socket fail.", never},
    {"wrong task->dataLen", never},
    {"failed to read data", never},
    {"write signal number to pipe fail", never},
    {"Attributes should NOT be NULL", never},
    {"VOK_RECVFROM returns", never},
    {"Pelkin has been timeout", never},
};

// A line behind syslog's head: "function():text".
void take_log_line(std::string_view bytes)
{
    const Lock lock(ledger_guard);
    latest_lines.emplace_back(bytes.substr(0, LONGEST_KEPT));
    if (latest_lines.size() > LINES_KEPT) {
        latest_lines.pop_front();
    }
    const size_t head = bytes.find("]: ");
    const size_t call = bytes.find("():", head);
    if (head == std::string_view::npos || call == std::string_view::npos) {
        return;
    }
    for (const auto &[key, read] : readings) {
        for (const size_t at : {call, head}) {
            const std::string_view text = bytes.substr(at + 3);
            if (text.starts_with(key)) {
                count(key);
                if (read != nullptr) {
                    read(text.substr(key.size()));
                }
                return;
            }
        }
    }
}

} // namespace soak
