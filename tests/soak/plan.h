/*
 * What a request asks and what it is answered, all of it worked out from the run's seed and the
 * request's number, so that requesters, servers and checks agree without keeping any text. Pure
 * functions, any thread.
 */
#ifndef PELKIN_TESTS_SOAK_PLAN_H
#define PELKIN_TESTS_SOAK_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/requester.h"

namespace soak
{

/* Numbers of requests; they are generic message ids too, far from those with a meaning. */
constexpr uint32_t FIRST_REQUEST = 0x20000000u;
/* Numbers of clients whose following is to be checked. */
constexpr uint32_t FIRST_CLIENT = 0x60000000u;

/* The last two bytes of a station's address say what it belongs to; below: a batch's station. */
constexpr uint16_t TOKEN_STATION = 0xFFFFu;
constexpr uint16_t FOLLOW_STATION = 0xFFFEu;

/* A number from 0 to `below` - 1 for `what` about request `number`. */
uint32_t draw(uint32_t number, const char *what, uint32_t below);

/* How a server behaves. */
enum class Temper {
    FICKLE, // in every way there is
    SLOW,   // slowly, and never wrongly: so that over a hundred tasks may wait for it
    ABSENT, // there is none
};

struct Target {
    std::string host;    // as it stands in the URL and in the log
    std::string address; // "" for an absent one
    bool tls;
    Temper temper;
};
const std::vector<Target> &targets();
/* As the log names it: "host:port". */
std::string road_name(const Target &target);

enum class Kind {
    TO_SOCKET,
    TO_FILE,
    TO_NO_DIRECTORY, // to a file whose directory cannot be made
    DROPPED,
    BATCH,
    TOKEN,
    NO_HOST, // a URL that cannot be used
};

struct Plan {
    uint32_t number = 0;
    size_t target = 0;
    Kind kind = Kind::TO_SOCKET;
    uint32_t msg_id = 0;
    bool post = false;
};
Plan plan_request(uint32_t number, size_t target);

std::string datagram_of(const Plan &plan);
/* Of TO_FILE and TO_NO_DIRECTORY. */
std::string file_of(const Plan &plan);
/* All that the server must be sent. */
std::string expected_request(const Plan &plan);

/* What a server does with one attempt at a request. */
enum class Behaviour {
    WHOLE,
    LATE,        // whole, after a pause
    IN_PIECES,   // whole, with pauses in it
    CLOSE_AFTER, // whole, then closes
    NO_LENGTH,   // whole, its end being the connection's
    EXTRA_BYTES, // whole, with something behind its end
    CUT_CLOSE,   // closes in the middle
    CUT_RESET,
    CUT_SILENCE, // says the rest when nobody waits any more
    MUTE_CLOSE,  // no answer at all, and so the rest
    MUTE_RESET,
    MUTE_SILENCE,
    NO_BLANK_LINE,
};
bool is_cut(Behaviour behaviour);
bool is_failure(Behaviour behaviour);
Behaviour behaviour_of(const Plan &plan, int attempt);

/* The answer to the `attempt`th time, from 1, that the server is asked. */
struct Answer {
    std::string head;
    std::string body;
};
Answer answer_of(const Plan &plan, int attempt);
size_t body_size_of(const Plan &plan);
/* Too short to tell whose it is. */
bool is_anonymous(const Plan &plan);
/* The number in an answer that was delivered; 0 when it has none. */
uint32_t number_in(const std::string &delivered);

/* Verdicts of the verification server, and of the follow check. */
bool is_refused(uint32_t number, size_t station);
bool is_follower(uint32_t client);
/* The whole report that a batch must lead to. */
std::string expected_report(const Plan &plan);
/* A station's address: the number, then the two bytes. */
std::string station_address(uint32_t number, uint16_t end);
uint32_t number_of_address(const std::string &address);
uint16_t end_of_address(const std::string &address);

} // namespace soak
#endif
