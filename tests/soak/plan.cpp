#include "tests/soak/plan.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "tests/support/social_batch.h"

namespace soak
{

static const size_t PLAIN_SERVERS = 25;
static const size_t TLS_SERVERS = 25;
static const size_t LARGEST_DATA = PELKIN_MSG_MAX - sizeof(ipc_msg_hdr) - sizeof(http_req_msg);
static const size_t LARGEST_BATCH = 759;
static const size_t IDENTIFYING = 8;   // characters of a body that name its request
static const size_t OPENING_SIZE = 18; // of a body: number, attempt and length
static const size_t ONE_RECORD = 8000; // goes out in one segment and in one TLS record

static uint64_t mix(uint64_t value)
{
    // The finaliser of splitmix64.
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
}

uint32_t draw(uint32_t number, const char *what, uint32_t below)
{
    uint64_t state = mix(((uint64_t)support::seed() << 32) + number + 1);
    for (; *what != '\0'; what++) {
        state = mix(state + (uint8_t)*what);
    }
    return (uint32_t)(state % below);
}

static std::vector<Target> make_targets()
{
    std::vector<Target> made;
    for (size_t i = 1; i <= PLAIN_SERVERS; i++) {
        const std::string address = "127.40.0." + std::to_string(i);
        made.push_back({address, address, false, i == 1 ? Temper::SLOW : Temper::FICKLE});
    }
    for (size_t i = 1; i <= TLS_SERVERS; i++) {
        const std::string number = std::to_string(i);
        made.push_back({"server-" + number + ".soak", "127.43.0." + number, true,
                        i == 1 ? Temper::SLOW : Temper::FICKLE});
    }
    made.push_back({"127.77.0.1", "", false, Temper::ABSENT});
    made.push_back({"127.77.0.2", "", true, Temper::ABSENT});
    made.push_back({"no.such.host.invalid", "", false, Temper::ABSENT});
    return made;
}

const std::vector<Target> &targets()
{
    static const std::vector<Target> all = make_targets();
    return all;
}

std::string road_name(const Target &target)
{
    return target.host + (target.tls ? ":443" : ":80");
}

static std::string hex(uint32_t number)
{
    char text[16];
    (void)std::snprintf(text, sizeof text, "%08x", number);
    return text;
}

static Kind draw_kind(uint32_t number)
{
    const uint32_t one = draw(number, "kind", 1000);
    const std::pair<uint32_t, Kind> shares[] = {{600, Kind::TO_SOCKET},       {700, Kind::TO_FILE},
                                                {720, Kind::TO_NO_DIRECTORY}, {800, Kind::DROPPED},
                                                {890, Kind::BATCH},           {980, Kind::TOKEN}};
    for (const auto &[end, kind] : shares) {
        if (one < end) {
            return kind;
        }
    }
    return Kind::NO_HOST;
}

Plan plan_request(uint32_t number, size_t target)
{
    Plan plan = {.number = number,
                 .target = target,
                 .kind = draw_kind(number),
                 .msg_id = number,
                 .post = draw(number, "post", 2) == 1};
    // Of a slow server's workers nothing in the log but the message id tells one from another.
    if (targets()[target].temper == Temper::SLOW) {
        plan.kind = Kind::TO_SOCKET;
    }
    if (plan.kind == Kind::BATCH) {
        plan.msg_id = PELKIN_MSG_REAUTH_REQ;
        plan.post = true;
    } else if (plan.kind == Kind::TOKEN) {
        plan.msg_id = PELKIN_MSG_FBAUTH_REQ;
    }
    return plan;
}

std::string station_address(uint32_t number, uint16_t end)
{
    std::string address;
    for (int shift = 24; shift >= 0; shift -= 8) {
        address += (char)(number >> shift);
    }
    return address + support::address_end(end);
}

uint32_t number_of_address(const std::string &address)
{
    uint32_t number = 0;
    for (size_t i = 0; i < 4; i++) {
        number = number << 8 | (uint8_t)address[i];
    }
    return number;
}

uint16_t end_of_address(const std::string &address)
{
    return (uint16_t)((uint8_t)address[4] << 8 | (uint8_t)address[5]);
}

bool is_refused(uint32_t number, size_t station)
{
    return draw(number + (uint32_t)station * 0x10001u, "refused", 3) == 0;
}

bool is_follower(uint32_t client)
{
    return draw(client, "follows", 3) != 0;
}

static std::vector<std::string> tokens_of(const Plan &plan)
{
    const uint32_t count = draw(plan.number, "largest batch", 100) == 0
                               ? (uint32_t)LARGEST_BATCH
                               : 1 + draw(plan.number, "stations", 20);
    std::vector<std::string> tokens;
    for (uint32_t i = 0; i < count; i++) {
        tokens.push_back(hex(plan.number) + "-" + std::to_string(i));
    }
    return tokens;
}

static std::string tag_of(const Plan &plan)
{
    const auto tag = (uint16_t)draw(plan.number, "tag", 0x10000);
    return std::string((const char *)&tag, sizeof tag);
}

static std::string batch_data(const Plan &plan)
{
    const std::vector<std::string> tokens = tokens_of(plan);
    std::string batch = support::make_batch(tokens);
    batch.replace(0, 2, tag_of(plan));
    for (size_t i = 0; i < tokens.size(); i++) {
        batch.replace(support::BATCH_HEAD_SIZE + i * support::BATCH_STA_SIZE + 65, PELKIN_MAC_SIZE,
                      station_address(plan.number, (uint16_t)i));
    }
    return batch;
}

std::string expected_report(const Plan &plan)
{
    support::Report report;
    const size_t count = tokens_of(plan).size();
    for (size_t i = 0; i < count; i++) {
        report.emplace_back((int)i, is_refused(plan.number, i) ? 0 : 1);
    }
    std::string bytes = support::report_bytes(report);
    bytes.replace(12, 2, tag_of(plan));
    for (size_t i = 0; i < count; i++) {
        bytes.replace(24 + 12 * i, PELKIN_MAC_SIZE, station_address(plan.number, (uint16_t)i));
    }
    return bytes;
}

static size_t draw_size(uint32_t number, const char *what, size_t largest)
{
    const uint32_t one = draw(number, what, 100);
    const std::string purpose = std::string(what) + " in detail";
    const auto within = [&](size_t from, size_t to) {
        return from + draw(number, purpose.c_str(), (uint32_t)(to - from));
    };
    if (one < 5) {
        return 0;
    }
    if (one < 10) {
        return within(1, IDENTIFYING);
    }
    if (one < 70) {
        return within(IDENTIFYING, 2000);
    }
    if (one < 90) {
        return within(2000, 20000);
    }
    return one < 97 ? within(20000, largest) : largest;
}

static std::string text_of(const Plan &plan, size_t length)
{
    std::string text(length, 'a');
    std::minstd_rand random(plan.number);
    for (char &letter : text) {
        letter = (char)('a' + random() % 26);
    }
    return text;
}

// Address and text; sometimes with a NUL behind the text, sometimes without.
static std::string plain_data(const Plan &plan)
{
    const size_t size = draw_size(plan.number, "request size", LARGEST_DATA);
    if (size <= PELKIN_MAC_SIZE) {
        return std::string(size, 'm');
    }
    std::string data =
        station_address(plan.number, TOKEN_STATION) + text_of(plan, size - PELKIN_MAC_SIZE);
    if (draw(plan.number, "with NUL", 2) == 0) {
        data.back() = '\0';
    }
    return data;
}

static std::string data_of(const Plan &plan)
{
    if (plan.kind == Kind::BATCH) {
        return batch_data(plan);
    }
    std::string data = plain_data(plan);
    if (plan.kind == Kind::TOKEN && data.size() <= PELKIN_MAC_SIZE) {
        data = station_address(plan.number, TOKEN_STATION);
    }
    return data;
}

static std::string url_of(const Plan &plan)
{
    const Target &target = targets()[plan.target];
    const std::string path = "/r/" + hex(plan.number);
    if (plan.kind == Kind::NO_HOST) {
        return draw(plan.number, "no host", 2) == 0 ? "http://" + path
                                                    : std::string(128, 'h') + path;
    }
    const bool scheme = target.tls || draw(plan.number, "scheme", 2) == 0;
    return (scheme ? (target.tls ? "https://" : "http://") : "") + target.host + path;
}

std::string file_of(const Plan &plan)
{
    if (plan.kind == Kind::TO_NO_DIRECTORY) {
        return "/tmp/answers/none/" + hex(plan.number) + "/answer";
    }
    // Every other one needs a directory that the daemon makes, each its own.
    const bool directory = draw(plan.number, "directory", 2) == 0;
    return "/tmp/answers/" + hex(plan.number) + (directory ? "/answer" : "");
}

std::string datagram_of(const Plan &plan)
{
    const bool to_file = plan.kind == Kind::TO_FILE || plan.kind == Kind::TO_NO_DIRECTORY;
    uint32_t method = to_file ? PELKIN_RESP_FILE : PELKIN_RESP_SOCKET;
    if (plan.kind == Kind::BATCH || plan.kind == Kind::TOKEN) {
        method = PELKIN_RESP_ANALYSE;
    } else if (plan.kind == Kind::DROPPED) {
        method = draw(plan.number, "method", 2) == 0 ? 0 : PELKIN_RESP_ANALYSE;
    }
    return support::datagram({.url = url_of(plan),
                              .msg_id = plan.msg_id,
                              .resp_method = method,
                              .http_req_type = plan.post ? PELKIN_HTTP_POST : 0,
                              .file_path = to_file ? file_of(plan) : "",
                              .data = data_of(plan)});
}

static std::string expected_text(const Plan &plan)
{
    if (plan.kind == Kind::BATCH) {
        return support::batch_body(tokens_of(plan)).substr(0, PELKIN_MSG_MAX - 1);
    }
    const std::string data = data_of(plan);
    if (data.size() <= PELKIN_MAC_SIZE) {
        return "";
    }
    const std::string text = data.substr(PELKIN_MAC_SIZE, PELKIN_TEXT_MAX);
    return text.substr(0, text.find('\0'));
}

std::string expected_request(const Plan &plan)
{
    const std::string text = expected_text(plan);
    const std::string query = plan.post || text.empty() ? "" : std::string("?").append(text);
    return (plan.post ? "POST /r/" : "GET /r/") + hex(plan.number) + query +
           " HTTP/1.0\r\nHost: " + targets()[plan.target].host +
           "\r\nConnection: keep-alive\r\nUser-Agent: pelkin\r\n"
           "Content-type: application/x-www-form-urlencoded\r\nContent-Length: " +
           std::to_string(plan.post ? text.size() : 0) + "\r\n\r\n" + (plan.post ? text : "");
}

bool is_cut(Behaviour behaviour)
{
    return behaviour == Behaviour::CUT_CLOSE || behaviour == Behaviour::CUT_RESET ||
           behaviour == Behaviour::CUT_SILENCE;
}

bool is_failure(Behaviour behaviour)
{
    return behaviour >= Behaviour::MUTE_CLOSE;
}

static Behaviour draw_behaviour(uint32_t number, int attempt)
{
    using enum Behaviour;
    const std::string purpose = "behaviour " + std::to_string(attempt);
    const uint32_t one = draw(number, purpose.c_str(), 10000);
    const std::pair<uint32_t, Behaviour> shares[] = {
        {5000, WHOLE},       {5800, LATE},        {6600, IN_PIECES},  {7300, CLOSE_AFTER},
        {7900, NO_LENGTH},   {8500, EXTRA_BYTES}, {8900, CUT_CLOSE},  {9200, CUT_RESET},
        {9215, CUT_SILENCE}, {9700, MUTE_CLOSE},  {9970, MUTE_RESET}, {9985, MUTE_SILENCE}};
    for (const auto &[end, behaviour] : shares) {
        if (one < end) {
            return behaviour;
        }
    }
    return NO_BLANK_LINE;
}

Behaviour behaviour_of(const Plan &plan, int attempt)
{
    if (targets()[plan.target].temper == Temper::SLOW) {
        return Behaviour::LATE;
    }
    const Behaviour behaviour = draw_behaviour(plan.number, attempt);
    const size_t size = body_size_of(plan);
    const bool cannot_be_cut = is_cut(behaviour) && size <= OPENING_SIZE;
    // More would not arrive in one piece, and what arrives later is another request's answer.
    const bool cannot_be_extended = behaviour == Behaviour::EXTRA_BYTES && size > ONE_RECORD;
    return cannot_be_cut || cannot_be_extended ? Behaviour::WHOLE : behaviour;
}

static std::string batch_answer(const Plan &plan)
{
    const std::vector<std::string> tokens = tokens_of(plan);
    std::string entries;
    for (size_t i = 0; i < tokens.size(); i++) {
        entries += (i > 0 ? ",\"" : "\"") + tokens[i] +
                   "\":{\"valid\":" + (is_refused(plan.number, i) ? "false" : "true") + "}";
    }
    return "{\"tokens\":{" + entries + "}}";
}

size_t body_size_of(const Plan &plan)
{
    if (plan.kind == Kind::BATCH) {
        return batch_answer(plan).size();
    }
    if (plan.kind == Kind::TOKEN) {
        return std::strlen("{\"valid\":true}") + (is_refused(plan.number, 0) ? 1 : 0);
    }
    return draw_size(plan.number, "answer size", 90000);
}

bool is_anonymous(const Plan &plan)
{
    const size_t size = body_size_of(plan);
    return size > 0 && size < IDENTIFYING;
}

// Any bytes, after an opening that tells whose it is, of which attempt, and how long.
static std::string pattern_body(const Plan &plan, int attempt)
{
    const size_t size = body_size_of(plan);
    char opening[32];
    (void)std::snprintf(opening, sizeof opening, "%08x.%02x.%05zx.", plan.number, (unsigned)attempt,
                        size);
    std::string body = opening;
    uint64_t state = mix(((uint64_t)plan.number << 8) + (uint64_t)attempt);
    while (body.size() < size) {
        state = mix(state + 1);
        body.append((const char *)&state, sizeof state);
    }
    body.resize(size);
    return body;
}

Answer answer_of(const Plan &plan, int attempt)
{
    Answer answer;
    if (plan.kind == Kind::BATCH) {
        answer.body = batch_answer(plan);
    } else if (plan.kind == Kind::TOKEN) {
        answer.body = is_refused(plan.number, 0) ? "{\"valid\":false}" : "{\"valid\":true}";
    } else {
        answer.body = pattern_body(plan, attempt);
    }
    answer.head = "HTTP/1.0 200 OK\r\nX-Request: " + hex(plan.number) + "." +
                  std::to_string(attempt) + "\r\n";
    if (behaviour_of(plan, attempt) != Behaviour::NO_LENGTH) {
        answer.head += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    }
    answer.head += "\r\n";
    return answer;
}

uint32_t number_in(const std::string &delivered)
{
    static const std::string header = "X-Request: ";
    const bool is_head = delivered.starts_with("HTTP/1.0 200 OK\r\n");
    const size_t at = is_head ? delivered.find(header) + header.size() : 0;
    if (delivered.size() < at + IDENTIFYING) {
        return 0;
    }
    const std::string digits = delivered.substr(at, IDENTIFYING);
    const bool is_number = digits.find_first_not_of("0123456789abcdef") == std::string::npos;
    return is_number ? (uint32_t)std::strtoul(digits.c_str(), nullptr, 16) : 0;
}

} // namespace soak
