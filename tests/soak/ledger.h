/*
 * Every request from its sending until it is known what became of it, and the daemon's workers as
 * its log tells of them. Servers, requesters, the station manager and the log say what they saw;
 * what doesn't fit is a fault. Any thread: one lock guards everything.
 *
 * How a request is followed through the log: the main thread names it by its URL when it takes it,
 * and its next lines are about the same request; the worker names it by its URL once more when it
 * has read it off its pipe; and the worker's last line names its message id, which for most is the
 * request's own number. A worker is first in, first out, so a request that a later one overtakes
 * has been lost, and one that its worker was still to do when it ended has been lost with it.
 */
#ifndef PELKIN_TESTS_SOAK_LEDGER_H
#define PELKIN_TESTS_SOAK_LEDGER_H

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/soak/plan.h"

namespace soak
{

/* What became of a request. */
enum class Outcome {
    WHOLE,            // its answer came, whole
    CUT,              // its answer came as far as the server let it
    DROPPED,          // carried out, answer not wanted
    REPORTED,         // kivren was told
    NOTHING_TO_TELL,  // the token holds, or the answer was cut before it said so
    UNDELIVERED,      // "failed to send ipc msg."
    KIVREN_FAILED,    // the same, of a message to kivren
    NO_DIRECTORY,     // "make directory failed:"
    NO_HOST,          // "fill http task failed."
    IGNORED,          // "ignore fb token verification."
    RESULT_IGNORED,   // "ignore fb token verification result."
    NO_ROOM,          // "failed to send task to thread."
    LOST_WITH_WORKER, // "thread exit:", after a failure
    COUNT
};
const char *name_of(Outcome outcome);

/* Messages that name no request, so far. */
struct Unnamed {
    uint64_t undelivered = 0;
    uint64_t result_ignored = 0;
};

struct Entry {
    Plan plan;
    int requester = 0;
    double sent_at = 0;
    bool is_taken = false;
    int task_lines = 0;     // that named it: one of the main thread, one of its worker
    bool is_queued = false; // known to be in a pipe, or to have been
    int attempts = 0;       // times that the server was asked
    double asked_at = 0;    // the latest time
    Unnamed at_start;       // when its worker took it
    Unnamed at_end;         // when its worker had done it
    bool is_finished = false;
    bool is_told = false;        // its answer or kivren's message has come
    bool is_told_cut = false;    // not all of it
    bool removal_failed = false; // "Failed to send del sta", with its address
    bool directory_failed = false;
    std::string history;
};

/* The workers of one host and scheme. */
struct Road {
    uint64_t added = 0;         // "Add new"
    uint64_t begun = 0;         // "thread begin"
    uint64_t live = 0;          // begun and not ended, or about to begin
    bool is_open = false;       // the main thread has a worker, as far as it knows
    bool is_ended = false;      // which has ended
    std::deque<uint32_t> queue; // of that worker, oldest first; of all workers of a slow server
    uint64_t released = 0;      // idle ones that have not ended yet
    uint64_t leaving = 0;       // that have said that they leave
    size_t outstanding = 0;     // requests
    double trouble_at = -1e9;   // when the server last refused a connection
    double down_at = -1e9;      // when it last stopped
};

struct Totals {
    uint64_t sent;
    uint64_t answered;
    uint64_t explained; // answers among them
    uint64_t open;
};

struct Ledger {
    std::mutex guard;
    std::unordered_map<uint32_t, Entry> entries;
    std::vector<Road> roads{targets().size()};
    std::vector<size_t> requester_outstanding;
    std::vector<uint32_t> anonymous; // of each requester: its request with a nameless answer, or 0
    uint32_t current = 0;            // the main thread's request
    Unnamed unnamed;
    bool requests_ignored = false;       // the first switch, as the main thread told
    double results_ignored_until = -1e9; // the second switch, as it is set
    uint64_t sent = 0;
    uint64_t ends_by_failure = 0; // of workers
    uint64_t outcomes[(size_t)Outcome::COUNT] = {};

    explicit Ledger(size_t requesters);

    /* Of requesters. False when the requester has another request with a nameless answer. */
    bool open(const Plan &plan, int requester);
    void withdraw(uint32_t number);
    void take_answer(int requester, const std::string &bytes);
    /*
     * Requests of the requester (of all, for kivren: -1) that are finished and of which nothing has
     * come. What is still in this state after everything that waited has been read, was not sent.
     */
    std::vector<uint32_t> list_untold(int requester);
    void settle_untold(const std::vector<uint32_t> &numbers);

    /* Of servers: which time this is, or 0 when nobody should ask. */
    int ask(size_t target, const std::string &request);
    void note_trouble(size_t target);
    void note_down(size_t target);

    /* Of kivren. */
    void take_report(const std::string &bytes);
    void take_removal(uint32_t number);

    /* The whole state, for the end and for people. */
    Totals totals();
    size_t count_open();
    std::string describe_open(size_t most);
    std::string summary();
};

/* Notes of the log watch, each with the guard held. */
void note_taken(Ledger &ledger, uint32_t number);
void note_task(Ledger &ledger, uint32_t number);
void note_handed_over(Ledger &ledger, uint32_t msg_id);
void note_refused(Ledger &ledger, Outcome outcome);
void note_worker_gone(Ledger &ledger);
void note_added(Ledger &ledger, const std::string &road);
void note_begun(Ledger &ledger, const std::string &road);
void note_deleted(Ledger &ledger, const std::string &road);
void note_leaving(Ledger &ledger, const std::string &road);
void note_exit(Ledger &ledger, const std::string &road);
void note_finished(Ledger &ledger, const std::string &road, uint32_t msg_id);

/* Within ledger*.cpp, with the guard held. */
void add_history(Entry &entry, const std::string &what);
void close_entry(Ledger &ledger, uint32_t number, Outcome outcome);
std::string describe(const Entry &entry);
void finish(Ledger &ledger, Entry &entry);
bool may_be_cut(const Ledger &ledger, const Entry &entry);

} // namespace soak
#endif
