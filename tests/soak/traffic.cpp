// What each request is, and the modules that ask, kivren among them: when they send and read.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/socket.h>

#include "core/ipc_msg.h"
#include "social/reauth_msg.h"
#include "tests/soak/soak.h"

namespace soak
{

// Of a request's data behind its address: what a datagram has room for.
static const size_t DATA_MAX =
    PELKIN_MSG_MAX - sizeof(ipc_msg_hdr) - sizeof(http_req_msg) - PELKIN_MAC_SIZE;
static const double RATE = 200;           // datagrams a second at most
static const size_t OPEN_MAX = 30;        // at a faithful server: their tasks fit into its pipe
static const uint32_t SENT_DEAF_MAX = 20; // by one that doesn't read: each holds a worker up
static const size_t BURST = 230;          // requests to a slow server at once
static const double BURST_PERIOD_S = 20;
static const double FILES_PERIOD_S = 0.2;
static const double DEAF_S = 1; // so long without reading may cost an answer

using Random = std::independent_bits_engine<std::mt19937, 32, uint32_t>;

/* A module at its socket. */
struct Module {
    std::string path;
    std::unique_ptr<support::Requester> socket = nullptr; // while it is away
    bool is_deaf = false;
    uint32_t sent_deaf = 0;
    double changes_at = 0;
    double read_at = 0;
};

static std::vector<Module> modules; // all of this is the one thread's
static Random chance(support::seed());

// The number, then the station's place in its batch.
static std::string station_address(uint32_t number, size_t station)
{
    return support::bytes_of(__builtin_bswap32(number)) + support::bytes_of((uint16_t)station);
}

static size_t draw_size(Random &random)
{
    static const struct {
        uint32_t share; // of 100
        size_t from;
        size_t spread;
    } rows[] = {{5, 0, 1}, {65, 8, 2000}, {20, 2000, 18000}, {7, 20000, 40000}, {3, 90000, 1}};
    const auto &row = pick(rows, random() % 100);
    return row.from + random() % row.spread;
}

// The text that goes to the server. The request's data, its answer and kivren's report go along.
static std::string make_batch(uint32_t number, Plan &plan, Random &random, std::string &data)
{
    const size_t size = random() % 100 == 0 ? REAUTH_STA_MAX : 1 + random() % 20;
    for (size_t i = 0; i < size; i++) {
        plan.stations.push_back({.token = hex(number) + "-" + std::to_string(i),
                                 .address = station_address(number, i),
                                 .is_valid = random() % 3 != 0,
                                 .incoming = random(),
                                 .outgoing = random()});
    }
    data = support::batch(plan.stations);
    plan.body = support::batch_answer(plan.stations);
    plan.told = support::report(plan.stations);
    return support::batch_text(plan.stations);
}

// As make_batch(), of all other kinds.
static std::string make_plain(uint32_t number, Plan &plan, Random &random, std::string &data,
                              size_t room)
{
    const std::string address = station_address(number, 0);
    std::string text(std::min(draw_size(random), room), 'a');
    for (char &letter : text) {
        letter = (char)('a' + random() % 26);
    }
    data = address + text;
    if (plan.kind == Kind::TOKEN) {
        const bool is_refused = random() % 3 == 0;
        plan.body = is_refused ? "{\"valid\":false}" : "{\"valid\":true}";
        plan.told = is_refused ? support::removal(address) : "";
    } else {
        data.resize(text.empty() ? 0 : data.size()); // the NUL behind a text may be missing
        const size_t size = draw_size(random);
        plan.body = size > 0 ? hex(number) : "";
        while (plan.body.size() < size) {
            plan.body += (char)random();
        }
    }
    return text.substr(0, PELKIN_TEXT_MAX);
}

static Plan plan_follow(uint32_t number, Random &random)
{
    static const uint32_t accounts = 30; // more than stay in the daemon while they are idle
    const std::string address = station_address(number, 0);
    const bool is_follower = random() % 3 != 0;
    const std::string appid = hex(random() % accounts);
    return {.datagram = support::check_follow(
                support::follow_request(address, std::string("o").append(hex(number)), appid,
                                        hex(random() % 3), (int32_t)(random() % 4) - 1)),
            .body = std::string("{\"subscribe\":") + (is_follower ? "1" : "0") + ",\"openid\":\"o" +
                    hex(number) + "\"}",
            .told = is_follower ? "" : support::removal(address)};
}

std::string file_of(uint32_t number)
{
    // Every other file needs a directory that the daemon makes.
    return "/tmp/answers/" + hex(number) + (number % 2 == 0 ? "" : "/answer");
}

Plan plan_of(uint32_t number, size_t target)
{
    static const struct {
        uint32_t share; // of 100
        Kind kind;
        uint32_t method;
        uint32_t msg_id;
    } rows[] = {{62, Kind::TO_SOCKET, PELKIN_RESP_SOCKET, support::PLAIN_MSG_ID},
                {10, Kind::TO_FILE, PELKIN_RESP_FILE, support::PLAIN_MSG_ID},
                {5, Kind::DROPPED, 0, support::PLAIN_MSG_ID},
                {5, Kind::DROPPED, PELKIN_RESP_ANALYSE, support::PLAIN_MSG_ID},
                {9, Kind::BATCH, PELKIN_RESP_ANALYSE, PELKIN_MSG_REAUTH_REQ},
                {9, Kind::TOKEN, PELKIN_RESP_ANALYSE, PELKIN_MSG_FBAUTH_REQ}};
    Random random(mixed(number));
    const Target &server = targets()[target];
    if (target == API) {
        return plan_follow(number, random);
    }
    // A slow server's pipe must have room for a burst.
    const bool is_slow = server.temper == Temper::SLOW;
    const size_t room = is_slow ? 2000 : DATA_MAX;
    const auto &row = is_slow ? rows[0] : pick(rows, random() % 100);
    Plan plan = {.kind = row.kind};
    std::string data;
    const bool is_batch = row.kind == Kind::BATCH;
    const std::string text = is_batch ? make_batch(number, plan, random, data)
                                      : make_plain(number, plan, random, data, room);
    const bool post = is_batch || random() % 2 == 0;
    const std::string path = "/r/" + hex(number);
    plan.datagram =
        support::datagram({.url = (server.tls ? "https://" : "http://") + server.host + path,
                           .msg_id = row.msg_id,
                           .resp_method = row.method,
                           .http_req_type = post ? PELKIN_HTTP_POST : 0,
                           .file_path = row.kind == Kind::TO_FILE ? file_of(number) : "",
                           .data = data});
    plan.asked = support::request_text(post, server.host, path, text);
    return plan;
}

static bool is_accepted(bool sent)
{
    if (!sent && errno != EAGAIN) {
        report_fault(std::string("the daemon takes no requests: ") + std::strerror(errno));
    }
    return sent;
}

static const char *const malformed[] = {
    "Received length mismatched", "Received length mismatched", "wechat check-follow request of ",
    "this should be reply of del sta", "fill http task failed."};

// A datagram that the daemon drops with a message, under which it is counted.
static bool send_malformed(const support::Requester &socket)
{
    const std::string junk(chance() % 290, 'x');
    const std::string whole = support::datagram({.url = "http:///nowhere"});
    const std::string all[] = {whole + "x", whole.substr(0, 1 + chance() % (whole.size() - 1)),
                               support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, junk),
                               support::message(KIVREN_MSG_DEL_STA_RESP, junk), whole};
    const size_t which = chance() % std::size(all);
    if (!is_accepted(socket.send(all[which]))) {
        return false;
    }
    count(std::string("sent for: ") + malformed[which]);
    return true;
}

void compare_malformed()
{
    for (const std::string message : malformed) {
        if (counted(message) != counted("sent for: " + message)) {
            report_fault("not told of every malformed datagram: " + message);
        }
    }
}

// One datagram, of somebody to somebody, unless they have enough to do. False when the daemon has.
static bool send_one()
{
    const size_t requester = chance() % REQUESTERS;
    const size_t target = chance() % targets().size();
    const Temper temper = targets()[target].temper;
    Module &module = modules[requester];
    // A requester that may not read would hold the faithful servers' workers up.
    const bool is_passed_over =
        temper == Temper::SLOW || (is_faithful(target) && requester % 2 == 1);
    if (module.socket == nullptr || is_passed_over ||
        (target != API && count_open(target) >= OPEN_MAX) ||
        (module.is_deaf && module.sent_deaf++ >= SENT_DEAF_MAX)) {
        return true;
    }
    if (chance() % 50 == 0) {
        return send_malformed(*module.socket);
    }
    return is_accepted(send_request(*module.socket, requester, target));
}

// More at once than one worker has slots for.
static void send_burst()
{
    static double next_at = 5;
    const size_t target = chance() % 2; // the slow ones
    if (now_s() < next_at || count_open(target) > 0) {
        return;
    }
    next_at = now_s() + BURST_PERIOD_S;
    for (size_t sent = 0; sent < BURST && fault_count() == 0;) {
        if (is_accepted(send_request(*modules[0].socket, 0, target))) {
            sent++;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

static void drain(size_t reader)
{
    static std::vector<char> buffer(65536);
    for (;;) {
        const ssize_t got = recv(modules[reader].socket->fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            return; // nothing more; 0 once it has been shut down
        }
        take_answer(reader, {buffer.data(), (size_t)got});
    }
}

static void read_all(size_t reader)
{
    Module &module = modules[reader];
    const bool was_late = now_s() - module.read_at > DEAF_S;
    if (was_late) {
        set_reading(reader, false);
    }
    drain(reader);
    set_reading(reader, true);
    module.read_at = now_s();
}

static void come(size_t reader)
{
    Module &module = modules[reader];
    module.socket = std::make_unique<support::Requester>(module.path);
    (void)fcntl(module.socket->fd, F_SETFL, O_NONBLOCK);
}

// Takes in no more, reads what came before, and goes: every sender knows whether it was received,
// since it sees the shutdown under the lock under which it queues a datagram.
static void go(size_t reader)
{
    Module &module = modules[reader];
    (void)shutdown(module.socket->fd, SHUT_RD);
    drain(reader);
    module.socket->keeps_file = chance() % 2 == 0;
    module.socket.reset();
}

static void change(size_t reader, bool is_loading)
{
    Module &module = modules[reader];
    const double seconds = 1 + chance() % 20;
    if (module.socket == nullptr) {
        come(reader);
    }
    module.is_deaf = false;
    module.sent_deaf = 0;
    module.changes_at = now_s() + 2 * seconds;
    const uint32_t one = chance() % (reader == KIVREN ? 30 : 50);
    if ((reader % 2 == 0 && reader != KIVREN) || !is_loading || one >= 20) {
        return;
    }
    set_reading(reader, false);
    module.is_deaf = one < 10;
    module.changes_at = now_s() + (module.is_deaf ? seconds : seconds / 4);
    count(reader == KIVREN ? "times that kivren was deaf or away" : "times that a requester was");
    if (!module.is_deaf) {
        go(reader);
    }
}

static void read_files()
{
    static double next_at = 0;
    if (now_s() > next_at) {
        next_at = now_s() + FILES_PERIOD_S;
        take_files(false);
    }
}

void run_readers(const std::stop_token &ending, const std::atomic<bool> &is_loading)
{
    double sent_up_to = now_s(); // the time up to which the load's rate has been used up
    for (size_t i = 0; i <= REQUESTERS; i++) {
        modules.push_back(
            {.path = i == KIVREN ? KIVREN_SOCKET_PATH : "/tmp/module-" + std::to_string(i)});
        come(i);
    }
    while (!ending.stop_requested()) {
        for (size_t i = 0; i <= REQUESTERS; i++) {
            const bool is_off = modules[i].is_deaf || modules[i].socket == nullptr;
            if (now_s() > modules[i].changes_at || (is_off && !is_loading)) {
                change(i, is_loading);
            }
            if (modules[i].socket != nullptr && !modules[i].is_deaf) {
                read_all(i);
            }
        }
        read_files();
        // What could not be sent is not made up for later.
        sent_up_to = std::max(sent_up_to, now_s() - 0.1);
        while (is_loading && sent_up_to < now_s() && send_one()) {
            sent_up_to += 1 / RATE;
        }
        if (is_loading) {
            send_burst();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace soak
