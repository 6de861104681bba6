#include "tests/soak/ledger.h"

#include <cstdio>
#include <filesystem>
#include <unistd.h>

#include "tests/soak/faults.h"
#include "tests/support/social_batch.h"

namespace soak
{

static const int ATTEMPTS_MAX = 4; // one and three repetitions

const char *name_of(Outcome outcome)
{
    static const char *const names[] = {"answered",
                                        "answered as far as the server went",
                                        "dropped as asked",
                                        "told to kivren",
                                        "nothing to tell kivren",
                                        "delivery failed",
                                        "kivren not reached",
                                        "no directory",
                                        "no host",
                                        "verification ignored",
                                        "result ignored",
                                        "no room in the pipe",
                                        "lost with its worker"};
    static_assert(std::size(names) == (size_t)Outcome::COUNT);
    return names[(size_t)outcome];
}

Ledger::Ledger(size_t requesters) : requester_outstanding(requesters), anonymous(requesters)
{
}

void add_history(Entry &entry, const std::string &what)
{
    char text[128];
    (void)std::snprintf(text, sizeof text, " +%.3f %s", now_s() - entry.sent_at, what.c_str());
    entry.history += text;
}

std::string describe(const Entry &entry)
{
    char text[160];
    (void)std::snprintf(text, sizeof text, "request %08x (id %08x, kind %d, requester %d) to %s",
                        entry.plan.number, entry.plan.msg_id, (int)entry.plan.kind, entry.requester,
                        road_name(targets()[entry.plan.target]).c_str());
    return text + (" sent at " + std::to_string(entry.sent_at) + ":") + entry.history;
}

bool Ledger::open(const Plan &plan, int requester)
{
    const std::lock_guard<std::mutex> lock(guard);
    const bool anonymously = plan.kind == Kind::TO_SOCKET && is_anonymous(plan);
    if (anonymously && anonymous[(size_t)requester] != 0) {
        return false;
    }
    if (anonymously) {
        anonymous[(size_t)requester] = plan.number;
    }
    Entry &entry = entries[plan.number];
    entry.plan = plan;
    entry.requester = requester;
    entry.sent_at = now_s();
    roads[plan.target].outstanding++;
    requester_outstanding[(size_t)requester]++;
    sent++;
    return true;
}

static void remove_entry(Ledger &ledger, const Entry &entry)
{
    const auto requester = (size_t)entry.requester;
    ledger.roads[entry.plan.target].outstanding--;
    ledger.requester_outstanding[requester]--;
    if (ledger.anonymous[requester] == entry.plan.number) {
        ledger.anonymous[requester] = 0;
    }
    ledger.entries.erase(entry.plan.number);
}

void Ledger::withdraw(uint32_t number)
{
    const std::lock_guard<std::mutex> lock(guard);
    remove_entry(*this, entries.at(number));
    sent--;
}

void close_entry(Ledger &ledger, uint32_t number, Outcome outcome)
{
    ledger.outcomes[(size_t)outcome]++;
    remove_entry(ledger, ledger.entries.at(number));
}

int Ledger::ask(size_t target, const std::string &request)
{
    const std::string heading = "/r/";
    const std::lock_guard<std::mutex> lock(guard);
    const size_t at = request.find(heading);
    const uint32_t number = at == std::string::npos ? 0 : number_in(request.substr(at + 3, 8));
    const auto found = entries.find(number);
    if (found == entries.end()) {
        report_fault(road_name(targets()[target]) +
                     " was asked what nobody asks now: " + request.substr(0, 80));
        return 0;
    }
    Entry &entry = found->second;
    if (entry.plan.target != target || request != expected_request(entry.plan)) {
        report_fault(road_name(targets()[target]) +
                     " was asked wrongly: " + request.substr(0, 200) + " for " + describe(entry));
    }
    entry.attempts++;
    entry.asked_at = now_s();
    add_history(entry, "server asked");
    if (entry.is_told || entry.is_finished || entry.attempts > ATTEMPTS_MAX) {
        report_fault("the server was asked too often: " + describe(entry));
    }
    return entry.attempts;
}

void Ledger::note_trouble(size_t target)
{
    const std::lock_guard<std::mutex> lock(guard);
    roads[target].trouble_at = now_s();
}

void Ledger::note_down(size_t target)
{
    const std::lock_guard<std::mutex> lock(guard);
    roads[target].trouble_at = now_s();
    roads[target].down_at = now_s();
}

// Whether the answer may have ended before its end.
bool may_be_cut(const Ledger &ledger, const Entry &entry)
{
    return is_cut(behaviour_of(entry.plan, entry.attempts)) ||
           ledger.roads[entry.plan.target].down_at >= entry.asked_at;
}

// Compares what was delivered with what the server said the latest time that it was asked.
static bool check_answer(const Ledger &ledger, Entry &entry, const std::string &bytes)
{
    const Answer answer = answer_of(entry.plan, entry.attempts);
    const size_t room = PELKIN_MSG_MAX - 1 - answer.head.size();
    const std::string whole = answer.body.empty() ? answer.head : answer.body.substr(0, room);
    if (entry.attempts > 0 && bytes == whole) {
        return true;
    }
    entry.is_told_cut = true;
    return entry.attempts > 0 && may_be_cut(ledger, entry) &&
           (bytes == answer.head || whole.starts_with(bytes));
}

void Ledger::take_answer(int requester, const std::string &bytes)
{
    const std::lock_guard<std::mutex> lock(guard);
    const uint32_t named = number_in(bytes);
    const auto found = entries.find(named != 0 ? named : anonymous[(size_t)requester]);
    if (found == entries.end()) {
        report_fault("requester " + std::to_string(requester) + " got what it did not ask for (" +
                     std::to_string(bytes.size()) + " bytes): " + bytes.substr(0, 60));
        return;
    }
    Entry &entry = found->second;
    add_history(entry, "answered");
    if (entry.requester != requester || entry.plan.kind != Kind::TO_SOCKET || entry.is_told ||
        !check_answer(*this, entry, bytes)) {
        report_fault("requester " + std::to_string(requester) + " got a wrong answer (" +
                     std::to_string(bytes.size()) + " bytes): " + bytes.substr(0, 60) + " for " +
                     describe(entry));
    }
    entry.is_told = true;
    if (entry.is_finished) {
        close_entry(*this, entry.plan.number, entry.is_told_cut ? Outcome::CUT : Outcome::WHOLE);
    }
}

static bool is_for_kivren(const Entry &entry)
{
    return entry.plan.kind == Kind::BATCH || entry.plan.kind == Kind::TOKEN;
}

std::vector<uint32_t> Ledger::list_untold(int requester)
{
    const std::lock_guard<std::mutex> lock(guard);
    std::vector<uint32_t> numbers;
    for (const auto &[number, entry] : entries) {
        const bool wanted = requester < 0 ? is_for_kivren(entry)
                                          : entry.requester == requester && !is_for_kivren(entry);
        if (wanted && entry.is_finished) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

// Why nothing was told about a request, although all that was told has been read.
static Outcome explain_silence(const Ledger &ledger, const Entry &entry)
{
    const bool is_token = entry.plan.kind == Kind::TOKEN;
    if (is_token && !is_refused(entry.plan.number, 0)) {
        return Outcome::NOTHING_TO_TELL;
    }
    if (is_for_kivren(entry) && entry.at_end.result_ignored > entry.at_start.result_ignored) {
        return Outcome::RESULT_IGNORED;
    }
    const bool failed =
        is_token ? entry.removal_failed : entry.at_end.undelivered > entry.at_start.undelivered;
    if (failed) {
        return is_for_kivren(entry) ? Outcome::KIVREN_FAILED : Outcome::UNDELIVERED;
    }
    if (is_for_kivren(entry) && may_be_cut(ledger, entry)) {
        return Outcome::NOTHING_TO_TELL;
    }
    return Outcome::COUNT;
}

void Ledger::settle_untold(const std::vector<uint32_t> &numbers)
{
    const std::lock_guard<std::mutex> lock(guard);
    for (const uint32_t number : numbers) {
        const auto found = entries.find(number);
        if (found == entries.end()) {
            continue; // its answer was among what was read
        }
        Outcome outcome = explain_silence(*this, found->second);
        if (outcome == Outcome::COUNT) {
            report_fault("no answer and no reason why: " + describe(found->second));
            outcome = Outcome::UNDELIVERED;
        }
        close_entry(*this, number, outcome);
    }
}

static void check_file(Ledger &ledger, Entry &entry)
{
    const std::string path = file_of(entry.plan);
    if (!check_answer(ledger, entry, support::read_file(path))) {
        report_fault("a wrong answer in the file " + path + ": " + describe(entry));
    }
    (void)unlink(path.c_str());
    if (path.ends_with("/answer")) {
        (void)rmdir(std::filesystem::path(path).parent_path().c_str()); // made for it alone
    }
}

// Its worker has said that it is done with it.
void finish(Ledger &ledger, Entry &entry)
{
    const uint32_t number = entry.plan.number;
    entry.is_finished = true;
    entry.at_end = ledger.unnamed;
    add_history(entry, "finished");
    switch (entry.plan.kind) {
    case Kind::TO_FILE:
        check_file(ledger, entry);
        close_entry(ledger, number, entry.is_told_cut ? Outcome::CUT : Outcome::WHOLE);
        break;
    case Kind::TO_NO_DIRECTORY:
        if (!entry.directory_failed) {
            report_fault("no word of a directory that cannot be made: " + describe(entry));
        }
        close_entry(ledger, number, Outcome::NO_DIRECTORY);
        break;
    case Kind::DROPPED:
        close_entry(ledger, number, Outcome::DROPPED);
        break;
    case Kind::TO_SOCKET:
        if (entry.is_told) {
            close_entry(ledger, number, entry.is_told_cut ? Outcome::CUT : Outcome::WHOLE);
        }
        break;
    case Kind::BATCH:
    case Kind::TOKEN:
        if (entry.is_told) {
            close_entry(ledger, number, Outcome::REPORTED);
        }
        break;
    case Kind::NO_HOST:
        report_fault("carried out without a host: " + describe(entry));
        close_entry(ledger, number, Outcome::NO_HOST);
        break;
    }
}

// A report of an answer that was cut holds its first entries; the last one may have lost its
// verdict, which then counts as a good one.
static bool is_beginning(const std::string &report, const std::string &whole)
{
    static const size_t head = sizeof(ipc_msg_hdr) + 8;
    static const size_t entry = 12;
    if (report.size() < head + entry || (report.size() - head) % entry != 0 ||
        report.size() > whole.size()) {
        return false;
    }
    const size_t entries = (report.size() - head) / entry;
    std::string expected = whole.substr(0, report.size());
    expected.replace(8, 4, support::bytes_of((uint32_t)(report.size() - sizeof(ipc_msg_hdr))));
    expected.replace(16, 4, support::bytes_of((uint32_t)entries));
    const bool is_equal = report == expected;
    const size_t last = report.size() - entry;
    expected[last] = '\1';
    return is_equal || report == expected;
}

void Ledger::take_report(const std::string &bytes)
{
    const std::lock_guard<std::mutex> lock(guard);
    const uint32_t number = bytes.size() < 30 ? 0 : number_of_address(bytes.substr(24, 6));
    const auto found = entries.find(number);
    if (found == entries.end() || found->second.plan.kind != Kind::BATCH || found->second.is_told) {
        report_fault("kivren got a report of " + std::to_string(bytes.size()) +
                     " bytes that nobody asked for, number " + std::to_string(number));
        return;
    }
    Entry &entry = found->second;
    add_history(entry, "reported");
    const std::string whole = expected_report(entry.plan);
    entry.is_told = true;
    entry.is_told_cut = bytes != whole;
    if (entry.is_told_cut && (!may_be_cut(*this, entry) || !is_beginning(bytes, whole))) {
        report_fault("kivren got a wrong report of " + std::to_string(bytes.size()) +
                     " bytes: " + describe(entry));
    }
    if (entry.is_finished) {
        close_entry(*this, number, Outcome::REPORTED);
    }
}

void Ledger::take_removal(uint32_t number)
{
    const std::lock_guard<std::mutex> lock(guard);
    const auto found = entries.find(number);
    if (found == entries.end() || found->second.plan.kind != Kind::TOKEN || found->second.is_told ||
        !is_refused(number, 0) || found->second.attempts == 0) {
        report_fault("kivren was asked to remove a station that no server refused, number " +
                     std::to_string(number));
        return;
    }
    Entry &entry = found->second;
    add_history(entry, "removed");
    entry.is_told = true;
    if (entry.is_finished) {
        close_entry(*this, number, Outcome::REPORTED);
    }
}

Totals Ledger::totals()
{
    const std::lock_guard<std::mutex> lock(guard);
    Totals totals = {.sent = sent,
                     .answered = outcomes[(size_t)Outcome::WHOLE] + outcomes[(size_t)Outcome::CUT],
                     .explained = 0,
                     .open = entries.size()};
    for (const uint64_t count : outcomes) {
        totals.explained += count;
    }
    return totals;
}

size_t Ledger::count_open()
{
    const std::lock_guard<std::mutex> lock(guard);
    return entries.size();
}

std::string Ledger::describe_open(size_t most)
{
    const std::lock_guard<std::mutex> lock(guard);
    std::string text;
    for (const auto &[number, entry] : entries) {
        if (most-- == 0) {
            break;
        }
        text += "\n  " + describe(entry);
    }
    return text;
}

std::string Ledger::summary()
{
    const std::lock_guard<std::mutex> lock(guard);
    std::string text = "requests sent: " + std::to_string(sent) + "\n";
    for (size_t i = 0; i < std::size(outcomes); i++) {
        text += "  " + std::to_string(outcomes[i]) + " " + name_of((Outcome)i) + "\n";
    }
    return text + "workers that ended by a failure: " + std::to_string(ends_by_failure) + "\n";
}

} // namespace soak
