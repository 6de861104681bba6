// The workers of each host and scheme, as the log tells of them.
#include <algorithm>

#include "tests/soak/faults.h"
#include "tests/soak/ledger.h"

namespace soak
{

// A worker may end that long after its server did what ended it: four attempts, each with a wait of
// ten seconds, and a handshake that the server held up.
static const double TROUBLE_LASTS_S = 90;
static const int ATTEMPTS_AT_LEAST = 3;
// Of workers that a slow server keeps busy: the task in progress and a hundred that wait for each,
// and as many requests outstanding as the requesters let there be.
static const uint64_t WORKERS_MAX_SLOW = 4;

static std::map<std::string, size_t> make_index()
{
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < targets().size(); i++) {
        index[road_name(targets()[i])] = i;
    }
    return index;
}

static Road *find_road(Ledger &ledger, const std::string &name)
{
    static const std::map<std::string, size_t> index = make_index();
    const auto found = index.find(name);
    return found == index.end() ? nullptr : &ledger.roads[found->second];
}

static bool is_slow(const Ledger &ledger, const Road &road)
{
    return targets()[(size_t)(&road - ledger.roads.data())].temper == Temper::SLOW;
}

static std::string name_of_road(const Ledger &ledger, const Road &road)
{
    return road_name(targets()[(size_t)(&road - ledger.roads.data())]);
}

static Entry *find_entry(Ledger &ledger, uint32_t number)
{
    const auto found = ledger.entries.find(number);
    return found == ledger.entries.end() ? nullptr : &found->second;
}

static Entry *current_entry(Ledger &ledger, const char *line)
{
    Entry *entry = find_entry(ledger, ledger.current);
    if (entry == nullptr) {
        report_fault(std::string("the main thread speaks of no request: ") + line);
    }
    return entry;
}

void note_taken(Ledger &ledger, uint32_t number)
{
    Entry *entry = find_entry(ledger, number);
    ledger.current = number;
    if (entry == nullptr || entry->is_taken) {
        report_fault("a request is taken that was not sent, or again: " +
                     (entry != nullptr ? describe(*entry) : std::to_string(number)));
        return;
    }
    entry->is_taken = true;
    add_history(*entry, "taken");
}

static void lose(Ledger &ledger, uint32_t number)
{
    Entry &entry = ledger.entries.at(number);
    add_history(entry, "lost with its worker");
    if (entry.is_told || entry.is_finished) {
        report_fault("answered by a worker that had ended: " + describe(entry));
    }
    close_entry(ledger, number, Outcome::LOST_WITH_WORKER);
}

// The task is in a worker's pipe, or has been.
static void queue_task(Ledger &ledger, Entry &entry)
{
    Road &road = ledger.roads[entry.plan.target];
    if (entry.is_queued) {
        return;
    }
    entry.is_queued = true;
    if (!road.is_open) {
        report_fault("handed over to no worker: " + describe(entry));
    }
    road.queue.push_back(entry.plan.number);
}

void note_task(Ledger &ledger, uint32_t number)
{
    Entry *entry = find_entry(ledger, number);
    if (entry == nullptr || ++entry->task_lines > 2) {
        report_fault("a task is known too often: " +
                     (entry != nullptr ? describe(*entry) : std::to_string(number)));
        return;
    }
    const bool is_verification = entry->plan.msg_id != number;
    if (entry->task_lines == 1 && is_verification && ledger.requests_ignored) {
        report_fault("a verification is not ignored: " + describe(*entry));
    }
    if (entry->task_lines == 2) {
        add_history(*entry, "worker took it");
        entry->at_start = ledger.unnamed;
        queue_task(ledger, *entry);
    }
}

void note_handed_over(Ledger &ledger, uint32_t msg_id)
{
    Entry *entry = find_entry(ledger, ledger.current);
    if (entry == nullptr) {
        return; // its worker was quicker than the main thread's message
    }
    if (entry->plan.msg_id != msg_id) {
        report_fault("handed over under another id: " + describe(*entry));
    }
    add_history(*entry, "handed over");
    queue_task(ledger, *entry);
    Road &road = ledger.roads[entry->plan.target];
    // A worker that says that it ends closes its pipe a little later.
    if (road.is_ended && !road.queue.empty()) {
        road.queue.pop_back();
        lose(ledger, entry->plan.number);
    }
}

void note_refused(Ledger &ledger, Outcome outcome)
{
    Entry *entry = current_entry(ledger, name_of(outcome));
    if (entry == nullptr) {
        return;
    }
    const bool fits = outcome == Outcome::NO_HOST ? entry->plan.kind == Kind::NO_HOST
                      : outcome == Outcome::IGNORED
                          ? entry->plan.msg_id != entry->plan.number && ledger.requests_ignored
                          : !entry->is_queued;
    if (!fits) {
        report_fault(std::string("refused without a reason, ") + name_of(outcome) + ": " +
                     describe(*entry));
    }
    close_entry(ledger, entry->plan.number, outcome);
}

void note_worker_gone(Ledger &ledger)
{
    Entry *entry = current_entry(ledger, "thread should exit already");
    if (entry == nullptr) {
        return;
    }
    Road &road = ledger.roads[entry->plan.target];
    if (!road.is_open || !road.is_ended) {
        report_fault("a worker went without a word: " + describe(*entry));
    }
    road.is_open = false;
}

static void start_worker(Ledger &ledger, Road &road)
{
    if (road.is_open && !is_slow(ledger, road)) {
        report_fault("one more worker for " + name_of_road(ledger, road) + " with " +
                     std::to_string(road.outstanding) + " requests outstanding");
    }
    road.is_open = true;
    road.is_ended = false;
    road.live++;
    if (is_slow(ledger, road) && road.live > WORKERS_MAX_SLOW) {
        report_fault("workers of " + name_of_road(ledger, road) + ": " + std::to_string(road.live));
    }
}

void note_added(Ledger &ledger, const std::string &name)
{
    Road *road = find_road(ledger, name);
    if (road != nullptr && ++road->added > road->begun) {
        start_worker(ledger, *road);
    }
}

void note_begun(Ledger &ledger, const std::string &name)
{
    Road *road = find_road(ledger, name);
    if (road != nullptr && ++road->begun > road->added) {
        start_worker(ledger, *road);
    }
}

void note_deleted(Ledger &ledger, const std::string &name)
{
    Road *road = find_road(ledger, name);
    if (road == nullptr || !road->is_open) {
        return; // found ended when it was to be used
    }
    if (!road->queue.empty()) {
        report_fault("a worker is released that is not idle: " + name);
    }
    road->released += road->is_ended ? 0 : 1;
    road->is_open = is_slow(ledger, *road) && road->live > road->released;
}

void note_leaving(Ledger &ledger, const std::string &name)
{
    Road *road = find_road(ledger, name);
    if (road == nullptr) {
        return;
    }
    if (road->released == road->leaving) {
        report_fault("a worker leaves that was not released: " + name);
    }
    road->leaving++;
}

// A connection that could not be made, or a request whose server failed it often enough. An attempt
// over a connection that the server was about to close is one of which the server knows nothing.
static bool has_reason_to_end(const Ledger &ledger, const Road &road)
{
    const Target &target = targets()[(size_t)(&road - ledger.roads.data())];
    if (target.temper == Temper::ABSENT || now_s() - road.trouble_at < TROUBLE_LASTS_S) {
        return true;
    }
    if (road.queue.empty()) {
        return false;
    }
    const Entry &entry = ledger.entries.at(road.queue.front());
    const Behaviour latest = behaviour_of(entry.plan, entry.attempts);
    return entry.attempts > 0 && entry.task_lines == 2 &&
           (latest == Behaviour::NO_BLANK_LINE ||
            (entry.attempts >= ATTEMPTS_AT_LEAST &&
             (is_failure(latest) || latest == Behaviour::CUT_RESET)));
}

static void end_by_failure(Ledger &ledger, Road &road)
{
    ledger.ends_by_failure++;
    if (!road.is_open || road.is_ended || is_slow(ledger, road) ||
        !has_reason_to_end(ledger, road)) {
        report_fault("a worker of " + name_of_road(ledger, road) + " ends without a reason" +
                     (road.queue.empty() ? "" : ": " + describe(ledger.entries.at(road.queue[0]))));
    }
    road.is_ended = true;
    for (const uint32_t number : road.queue) {
        lose(ledger, number);
    }
    road.queue.clear();
}

void note_exit(Ledger &ledger, const std::string &name)
{
    Road *road = find_road(ledger, name);
    if (road == nullptr) {
        return;
    }
    if (road->live == 0) {
        report_fault("a worker ends that never began: " + name);
        return;
    }
    road->live--;
    if (road->leaving > 0) {
        road->leaving--;
        road->released--;
    } else {
        end_by_failure(ledger, *road);
    }
}

// The request that a worker has done: its oldest one, or, with several workers, the one named.
static uint32_t take_done(const Ledger &ledger, Road &road, uint32_t msg_id)
{
    auto done = road.queue.begin();
    if (is_slow(ledger, road)) {
        done = std::find(road.queue.begin(), road.queue.end(), msg_id);
    }
    if (done == road.queue.end()) {
        return 0;
    }
    const uint32_t number = *done;
    road.queue.erase(done);
    return number;
}

void note_finished(Ledger &ledger, const std::string &name, uint32_t msg_id)
{
    Road *road = find_road(ledger, name);
    const uint32_t number = road == nullptr ? 0 : take_done(ledger, *road, msg_id);
    Entry *entry = find_entry(ledger, number);
    if (entry == nullptr) {
        report_fault("done, but not under way: id " + std::to_string(msg_id) + " at " + name);
        return;
    }
    if (entry->plan.msg_id != msg_id || entry->task_lines != 2) {
        report_fault("a later request was done first, or this one is lost: " + describe(*entry));
    }
    finish(ledger, *entry);
}

} // namespace soak
