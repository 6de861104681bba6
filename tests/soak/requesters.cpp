// The modules that ask, and kivren: what they send, and how they read.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/socket.h>

#include "core/ipc_msg.h"
#include "social/reauth_msg.h"
#include "tests/soak/soak.h"
#include "wechat/wechat_msg.h"

namespace soak
{

static const uint32_t FIRST_NUMBER = 0x20000000u; // far from message ids with a meaning
static const double RATE = 200;                   // datagrams a second at most
static const size_t QUEUED_MAX = 30;              // of a server that is not slow: it has 100 slots
static const uint32_t SENT_DEAF_MAX = 20; // by one that doesn't read: each holds a worker up
static const size_t BURST = 230;          // requests to a slow server at once
static const double BURST_PERIOD_S = 20;
static const size_t BURSTING = 0; // the requester that asks the slow servers, and none else does
static const double DEAF_S = 1;   // so long without reading may cost an answer

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
static uint32_t next_number = FIRST_NUMBER;

template <typename T> static std::string bytes_of(const T &value, size_t size = sizeof(T))
{
    return std::string((const char *)&value, size);
}

// The number, then the station's place in its batch.
static std::string station_address(uint32_t number, size_t station)
{
    return bytes_of(__builtin_bswap32(number)) + bytes_of((uint16_t)station);
}

static std::string to_kivren(uint32_t msg_id, const std::string &payload)
{
    std::string bytes = support::message(msg_id, payload);
    bytes[offsetof(ipc_msg_hdr, src_module)] = PELKIN_MODULE_ID;
    return bytes;
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
static std::string make_batch(Request &request, Random &random, std::string &data)
{
    static reauth_attr attrs;
    attrs = {.reauth_tag = (uint16_t)random(), .text = "", .secret = "s", .sta_num = 0, .sta = {}};
    std::string texts;
    std::string verdicts;
    std::string report;
    const int32_t stations = random() % 100 == 0 ? REAUTH_STA_MAX : 1 + (int32_t)(random() % 20);
    for (reauth_sta *sta = attrs.sta; attrs.sta_num < stations; sta++) {
        const std::string token =
            hex(request.number).append("-").append(std::to_string(attrs.sta_num));
        const std::string address = station_address(request.number, (size_t)attrs.sta_num++);
        const int32_t is_valid = random() % 3 == 0 ? 0 : 1;
        (void)token.copy(sta->token, sizeof sta->token);
        (void)address.copy((char *)sta->mac, sizeof sta->mac);
        sta->incoming = random();
        sta->outgoing = random();
        const char *comma = attrs.sta_num > 1 ? "," : "";
        const std::string name = "\"" + token + "\":{";
        texts += comma + name + "\"incoming\":\"" + std::to_string(sta->incoming) +
                 "\",\"outgoing\":\"" + std::to_string(sta->outgoing) + "\"}";
        verdicts += comma + name + "\"valid\":" + (is_valid == 1 ? "true}" : "false}");
        report += bytes_of(is_valid) + address + std::string(2, '\0');
    }
    data = bytes_of(attrs, offsetof(reauth_attr, sta) + (size_t)stations * sizeof attrs.sta[0]);
    request.body = "{\"tokens\":{" + verdicts + "}}";
    request.told = to_kivren(PELKIN_MSG_REAUTH_RESP, bytes_of((uint32_t)attrs.reauth_tag) +
                                                         bytes_of(attrs.sta_num) + report);
    return "secret=s&tokens={" + texts + "}";
}

// As make_batch(), of all other kinds.
static std::string make_plain(Request &request, Random &random, std::string &data)
{
    const std::string address = station_address(request.number, 0);
    const bool is_refused = random() % 3 == 0;
    const size_t room =
        PELKIN_MSG_MAX - sizeof(ipc_msg_hdr) - sizeof(http_req_msg) - address.size();
    std::string text(std::min(draw_size(random), room), 'a');
    for (char &letter : text) {
        letter = (char)('a' + random() % 26);
    }
    data = address + text;
    if (request.kind == Kind::TOKEN) {
        request.body = is_refused ? "{\"valid\":false}" : "{\"valid\":true}";
        request.told = is_refused ? to_kivren(KIVREN_MSG_DEL_STA_REQ, address) : "";
    } else {
        data.resize(text.empty() ? 0 : data.size()); // the NUL behind a text may be missing
        const size_t size = draw_size(random);
        request.body = size > 0 ? hex(request.number) : "";
        while (request.body.size() < size) {
            request.body += (char)random();
        }
    }
    return text.substr(0, PELKIN_TEXT_MAX);
}

static void make_follow(Request &request, Random &random)
{
    static const uint32_t accounts = 30; // more than stay in the daemon while they are idle
    const std::string address = station_address(request.number, 0);
    const bool is_follower = random() % 3 != 0;
    wechat_check_follow_req message = {};
    (void)address.copy((char *)message.mac, sizeof message.mac);
    (void)std::string("o").append(hex(request.number)).copy(message.openid, sizeof message.openid);
    (void)hex(random() % accounts).copy(message.appid, sizeof message.appid);
    (void)hex(random() % 3).copy(message.appsecret, sizeof message.appsecret);
    message.delay = (int32_t)(random() % 4) - 1; // minutes
    request.target = API;
    request.datagram = support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, bytes_of(message));
    request.body = std::string("{\"subscribe\":") + (is_follower ? "1" : "0") + ",\"openid\":\"o" +
                   hex(request.number) + "\"}";
    request.told = is_follower ? "" : to_kivren(KIVREN_MSG_DEL_STA_REQ, address);
}

static Request make_request(size_t requester, size_t target)
{
    static const struct {
        uint32_t share; // of 100
        Kind kind;
        uint32_t method;
        uint32_t msg_id;
    } rows[] = {{60, Kind::TO_SOCKET, PELKIN_RESP_SOCKET, 0},
                {10, Kind::TO_FILE, PELKIN_RESP_FILE, 0},
                {5, Kind::DROPPED, 0, 0},
                {5, Kind::DROPPED, PELKIN_RESP_ANALYSE, 0},
                {9, Kind::BATCH, PELKIN_RESP_ANALYSE, PELKIN_MSG_REAUTH_REQ},
                {9, Kind::TOKEN, PELKIN_RESP_ANALYSE, PELKIN_MSG_FBAUTH_REQ},
                {2, Kind::FOLLOW, 0, 0}};
    const uint32_t number = next_number++;
    Random random(mixed(number));
    const Target &server = targets()[target];
    // Of a slow server's several workers the log tells by the message id only: it must be unique.
    const auto &row = server.temper == Temper::SLOW ? rows[0] : pick(rows, random() % 100);
    Request request = {.number = number,
                       .kind = row.kind,
                       .requester = requester,
                       .target = target,
                       .msg_id = row.msg_id != 0 ? row.msg_id : number};
    if (row.kind == Kind::FOLLOW) {
        make_follow(request, random);
        return request;
    }
    std::string data;
    const bool is_batch = row.kind == Kind::BATCH;
    const std::string text = (is_batch ? make_batch : make_plain)(request, random, data);
    const bool post = is_batch || random() % 2 == 0;
    const std::string path = "/r/" + hex(number);
    // Every other file needs a directory that the daemon makes.
    const std::string name = random() % 2 == 0 ? "" : "/answer";
    request.file = row.kind == Kind::TO_FILE ? "/tmp/answers/" + hex(number) + name : "";
    request.datagram =
        support::datagram({.url = (server.tls ? "https://" : "http://") + server.host + path,
                           .msg_id = request.msg_id,
                           .resp_method = row.method,
                           .http_req_type = post ? PELKIN_HTTP_POST : 0,
                           .file_path = request.file,
                           .data = data});
    request.asked = (post ? "POST " : "GET ") + path + (post || text.empty() ? "" : "?" + text) +
                    " HTTP/1.0\r\nHost: " + server.host +
                    "\r\nConnection: keep-alive\r\nUser-Agent: pelkin\r\n"
                    "Content-type: application/x-www-form-urlencoded\r\nContent-Length: " +
                    std::to_string(post ? text.size() : 0) + "\r\n\r\n" + (post ? text : "");
    return request;
}

static bool is_accepted(bool sent)
{
    if (!sent && errno != EAGAIN) {
        report_fault(std::string("the daemon takes no requests: ") + std::strerror(errno));
    }
    return sent;
}

static const std::string mismatched = "Received length mismatched";
static const std::string too_short = "wechat check-follow request of ";
static const std::string reply = "this should be reply of del sta";
static const std::string hostless = "fill http task failed.";

// A datagram that the daemon drops with a message, which is the name under which it is counted.
static bool send_malformed(const support::Requester &socket)
{
    const std::string junk(chance() % 290, 'x');
    const std::string whole = support::datagram({.url = "http:///nowhere"});
    const std::pair<const std::string &, std::string> all[] = {
        {mismatched, whole + "x"},
        {mismatched, whole.substr(0, 1 + chance() % (whole.size() - 1))},
        {too_short, support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, junk)},
        {reply, support::message(KIVREN_MSG_DEL_STA_RESP, junk)},
        {hostless, whole}};
    const auto &[message, bytes] = all[chance() % std::size(all)];
    if (!is_accepted(socket.send(bytes))) {
        return false;
    }
    count("sent for: " + message);
    return true;
}

void compare_malformed()
{
    for (const std::string &message : {mismatched, too_short, reply, hostless}) {
        if (counted(message) != counted("sent for: " + message)) {
            report_fault("not told of every malformed datagram: " + message);
        }
    }
}

// One datagram, of somebody to somebody, unless they have enough to do. False when the daemon has.
static bool send_one()
{
    const size_t requester = 1 + chance() % (REQUESTERS - 1);
    const size_t target = chance() % targets().size();
    const Temper temper = targets()[target].temper;
    Module &module = modules[requester];
    // Every worker of an absent server is a thread that comes and goes.
    const bool is_passed_over =
        target == API || temper == Temper::SLOW || (temper == Temper::ABSENT && chance() % 4 > 0);
    if (module.socket == nullptr || is_passed_over || count_queued(target) >= QUEUED_MAX ||
        (module.is_deaf && module.sent_deaf++ >= SENT_DEAF_MAX)) {
        return true;
    }
    if (chance() % 50 == 0) {
        return send_malformed(*module.socket);
    }
    return is_accepted(send_request(*module.socket, make_request(requester, target)));
}

// More at once than one worker has slots for.
static void send_burst()
{
    static double next_at = 5;
    const size_t target = chance() % 2; // the slow ones
    if (now_s() < next_at || count_queued(target) > 0) {
        return;
    }
    next_at = now_s() + BURST_PERIOD_S;
    for (size_t sent = 0; sent < BURST && fault_count() == 0;) {
        if (is_accepted(send_request(*modules[BURSTING].socket, make_request(BURSTING, target)))) {
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
        const std::string bytes(buffer.data(), (size_t)got);
        reader == KIVREN ? take_kivren_message(bytes) : take_answer(reader, bytes);
    }
}

// What was there is read before what is missing is asked about.
static void read_all(size_t reader)
{
    Module &module = modules[reader];
    const std::vector<uint32_t> untold = list_untold(reader);
    if (now_s() - module.read_at > DEAF_S) {
        note_away(reader);
    }
    drain(reader);
    settle_untold(untold);
    module.read_at = now_s();
}

static void come(size_t reader)
{
    Module &module = modules[reader];
    module.socket = std::make_unique<support::Requester>(module.path);
    (void)fcntl(module.socket->fd, F_SETFL, O_NONBLOCK);
    note_away(reader);
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
    const uint32_t one = chance() % (reader == KIVREN ? 30 : 100);
    if (reader == BURSTING || !is_loading || one >= 20) {
        return;
    }
    module.is_deaf = one < 10;
    module.changes_at = now_s() + (module.is_deaf ? seconds : seconds / 4);
    count(reader == KIVREN ? "times that kivren was deaf or away" : "times that a requester was");
    if (!module.is_deaf) {
        go(reader);
    }
}

void run_readers(const std::stop_token &ending, const std::atomic<bool> &is_loading)
{
    double sent_up_to = now_s(); // the time up to which the load's rate has been used up
    for (size_t i = 0; i <= REQUESTERS; i++) {
        modules.push_back({.path = i == KIVREN
                                       ? KIVREN_SOCKET_PATH
                                       : std::string("/tmp/module-").append(std::to_string(i))});
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
