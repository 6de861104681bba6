/*
 * The soak's parts. A request's number makes all of it: what it asks for, what its server must be
 * sent and answers, what must come of that. So whoever meets the number, server, requester or
 * station manager, can tell whether what it sees is right; the account only keeps how often each
 * was asked and answered. Any thread may call it.
 */
#ifndef PELKIN_TESTS_SOAK_SOAK_H
#define PELKIN_TESTS_SOAK_SOAK_H

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/requester.h"
#include "tests/support/server.h"

namespace soak
{

constexpr size_t REQUESTERS = 20; // every second one stops reading or vanishes now and then
constexpr size_t KIVREN = REQUESTERS;

enum class Temper {
    FICKLE,   // behaves in every way there is
    FAITHFUL, // answers every time and is never restarted: nothing asked of it may be lost
    SLOW,     // faithful, and slow, so that over a hundred tasks may wait for it
    ABSENT,   // there is no such server
};
struct Target {
    std::string host; // as it stands in the URL
    std::string address;
    bool tls;
    Temper temper;
};
const std::vector<Target> &targets();
constexpr size_t API = 50; // the target that knows who follows; faithful
bool is_faithful(size_t target);

/* What becomes of the answer; FOLLOW: a client whose following is to be checked. */
enum class Kind { TO_SOCKET, TO_FILE, DROPPED, BATCH, TOKEN, FOLLOW };
struct Plan {
    Kind kind = Kind::FOLLOW;
    std::string datagram = "";
    std::string asked = ""; // all that its server must be sent
    std::string body = "";  // of the server's answer
    std::string told = "";  // what kivren must get, "" for nothing
    support::Stations stations = {};
};
Plan plan_of(uint32_t number, size_t target);
std::string file_of(uint32_t number);

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

/* Tells of a fault; of a flood only the first ones are printed, all are counted. The first one also
 * makes the daemon's latest log lines a file (SOAK_LOG of the environment). */
void report_fault(const std::string &text);
size_t fault_count();
/* Whatever is counted, by name. */
void count(const std::string &what);
size_t counted(const std::string &what);
std::string summary();
/* Counts the daemon's messages that are waited for or compared; some must never come. */
void take_log_line(std::string_view bytes);

/* Sends the next request and enters it; false when the daemon takes no more at the moment. */
bool send_request(const support::Requester &socket, size_t requester, size_t target);
/* Requests that must still be answered, of all targets or of one. */
size_t count_open(std::optional<size_t> target = std::nullopt);
void report_open();
/* What the server got, "" for one entry of a list: the body of its answer, none when nobody should
 * ask for it. */
std::optional<std::string> note_asked(size_t target, uint32_t number, std::string_view text,
                                      bool has_length);
/* The beginning of every answer: status, number and, unless it is none, the body's length. */
std::string head_of(uint32_t number, std::optional<size_t> length);
void take_answer(size_t reader, const std::string &bytes);
/* Takes the answers' files that are whole; at the end what is left must be right. */
void take_files(bool is_end);
/* A reader that does not read, or verifications that are ignored: their answers may be lost. */
void set_reading(size_t reader, bool is_reading);
void set_ignoring(bool is_ignoring);

/* The servers, by target; none for those that are absent. */
using Servers = std::vector<std::unique_ptr<support::Server>>;
void start_server(Servers &servers, size_t target);

/* The thread of the requesters and of kivren. Once not loading, nothing is sent and all read. */
void run_readers(const std::stop_token &ending, const std::atomic<bool> &is_loading);
/* Of datagrams that are no requests: each must have led to its message. */
void compare_malformed();

} // namespace soak
#endif
