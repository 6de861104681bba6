/*
 * The soak's parts and what they share. The ledger holds every request, with all that is to come of
 * it, from its sending until it is known what became of it. Requesters, servers and the daemon's
 * log tell it what they see, and what doesn't fit is a fault. Any thread may call it.
 */
#ifndef PELKIN_TESTS_SOAK_SOAK_H
#define PELKIN_TESTS_SOAK_SOAK_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/log_sink.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

namespace soak
{

constexpr size_t REQUESTERS = 20;
constexpr size_t KIVREN = REQUESTERS; // one more reader of what the daemon sends

enum class Temper {
    FICKLE,   // behaves in every way there is
    FAITHFUL, // answers every time and is never restarted: nothing asked of it may be lost
    SLOW,     // faithful, and slow, so that over a hundred tasks may wait for it
    ABSENT,   // there is no such server
};
struct Target {
    std::string host; // as it stands in the URL and in the log
    std::string address;
    bool tls;
    Temper temper;
};
const std::vector<Target> &targets();
constexpr size_t API = 50; // the target that knows who follows

/* What becomes of the answer; FOLLOW: a client whose following is to be checked. */
enum class Kind { TO_SOCKET, TO_FILE, DROPPED, BATCH, TOKEN, FOLLOW };

struct Request {
    uint32_t number = 0; // stands in its URL, in its answer, in its stations' addresses
    Kind kind = Kind::TO_SOCKET;
    size_t requester = 0;
    size_t target = 0;
    uint32_t msg_id = 0; // the number where the kind has no id of its own
    std::string datagram = "";
    std::string asked = ""; // all that its server must be sent
    std::string body = "";  // of the server's answer
    std::string told = "";  // what kivren must get, "" for nothing
    std::string file = "";

    std::string head = ""; // of the server's answer, when it was asked the latest time
    double asked_at = 0;   // that time
    int attempts = 0;      // times that the server was asked
    bool is_handed_over = false;
    bool may_be_cut = false;   // the server's latest answer ends before its end
    bool is_tried = false;     // a message to kivren was about to be sent
    bool is_unchecked = false; // "failed to check client"
    bool is_finished = false;
    bool is_told = false; // its answer or kivren's message has come
    bool is_told_cut = false;
};

/* Seconds since the run began. */
double now_s();
/* Waits for so long, or until the thread is to end. */
void rest(const std::stop_token &ending, uint32_t milliseconds);
/* A random number that the run's seed and `value` determine. */
uint32_t mixed(uint64_t value);
std::string hex(uint32_t number);
/* The hexadecimal number behind the key's first place, 0 without. */
uint32_t number_behind(std::string_view text, std::string_view key);

/* The row in whose share `one` lies. */
template <typename Row, size_t size> const Row &pick(const Row (&rows)[size], uint32_t one)
{
    const Row *row = rows;
    for (; one >= row->share; row++) {
        one -= row->share;
    }
    return *row;
}

/*
 * Tells of a fault. The first one also makes the daemon's latest log lines a file (SOAK_LOG of the
 * environment); of a flood only the first ones are printed, all are counted.
 */
void report_fault(const std::string &text);
size_t fault_count();
/* Whatever is counted, by name: outcomes of requests, messages of the daemon, disturbances. */
void count(std::string_view what);
uint64_t counted(std::string_view what);
std::string summary();

/* Guards all that the ledger and the log watch know. */
extern std::recursive_mutex ledger_guard;
using Lock = std::lock_guard<std::recursive_mutex>;

/* Sends and enters it; false when the daemon takes no more at the moment. */
bool send_request(const support::Requester &socket, Request request);
size_t count_open();
void report_open();

/* The beginning of every answer: status, number and, unless it is none, the body's length. */
std::string head_of(uint32_t number, std::optional<size_t> length);
/*
 * The answer to a request that the server got, none when nobody should ask for it. `text` is all
 * that it got, "" for one entry of a list.
 */
struct Answer {
    std::string head;
    std::string body;
};
std::optional<Answer> ask(size_t target, uint32_t number, std::string_view text, bool has_length,
                          bool is_cut);
void note_down(size_t target);

/*
 * What a reader got. Requests that are done and of which it got nothing are listed before it reads
 * what there is, and settled behind that. note_away(): it has not been reading up to now.
 */
void take_answer(size_t requester, const std::string &bytes);
void take_kivren_message(const std::string &bytes);
std::vector<uint32_t> list_untold(size_t reader);
void settle_untold(const std::vector<uint32_t> &numbers);
void note_away(size_t reader);

/* For the log watch, with the guard held: null when there is no such request under way. */
Request *find(uint32_t number);
std::string describe(uint32_t number);
std::string road_name(size_t target);
bool is_for_kivren(const Request &request);
void close(uint32_t number, std::string_view outcome);
void finish(Request &request);

/* Of the daemon's log, which must all come here. */
void take_log_line(std::string_view bytes);
size_t count_queued(size_t target); // requests that the daemon has for it
/*
 * Verifications' results may be ignored until then, as far as the switch is known: a worker may act
 * by it before the main thread has told of it, and a little after.
 */
void allow_ignoring(double until);
bool may_be_ignored(double since);

/* The servers, by target; none for those that are absent. */
using Servers = std::vector<std::unique_ptr<support::Server>>;
Servers start_servers();
void restart_server(Servers &servers, size_t target, uint32_t pause_ms,
                    const std::stop_token &ending);

/* The thread of the requesters and of kivren. Once not loading, nothing is sent and all read. */
void run_readers(const std::stop_token &ending, const std::atomic<bool> &is_loading);
/* Of datagrams that are no requests: each must lead to its message. */
void compare_malformed();

} // namespace soak
#endif
