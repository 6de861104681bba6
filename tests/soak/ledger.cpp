// Every request until it is known what became of it.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <unordered_map>
#include <utility>

#include "tests/soak/soak.h"

namespace soak
{

static const int ATTEMPTS_MAX = 4; // one and three repetitions
static const double ECHO_S = 5; // a server that went down may still read what it was asked before
static const double LONG_AGO = -1e9;
static const char STATUS[] = "HTTP/1.0 200 ";              // the number follows
static const size_t REPORT_HEAD = sizeof(ipc_msg_hdr) + 8; // tag and number of stations
static const size_t REPORT_ENTRY = 12;                     // verdict, address, padding

std::recursive_mutex ledger_guard; // of all below
static std::unordered_map<uint32_t, Request> requests;
static std::vector<double> down_at(targets().size(), LONG_AGO); // when a server last stopped
static std::vector<uint32_t> untold[REQUESTERS + 1]; // of readers: finished, nothing has come
static double away_until[REQUESTERS + 1];            // of readers
static std::map<std::string, uint64_t, std::less<>> counts;

double now_s()
{
    static const auto start = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string hex(uint32_t number)
{
    char text[16];
    (void)std::snprintf(text, sizeof text, "%08x", number);
    return text;
}

uint32_t number_behind(std::string_view text, std::string_view key)
{
    const size_t at = text.find(key);
    uint32_t number = 0;
    if (at != std::string_view::npos) {
        const char *digits = text.data() + at + key.size();
        (void)std::from_chars(digits, text.data() + text.size(), number, 16);
    }
    return number;
}

void count(std::string_view what)
{
    const Lock lock(ledger_guard);
    const auto found = counts.find(what);
    found != counts.end() ? ++found->second : counts[std::string(what)] = 1;
}

uint64_t counted(std::string_view what)
{
    const Lock lock(ledger_guard);
    const auto found = counts.find(what);
    return found == counts.end() ? 0 : found->second;
}

std::string summary()
{
    const Lock lock(ledger_guard);
    std::string text;
    for (const auto &[what, times] : counts) {
        text += "  " + std::to_string(times) + " " + what + "\n";
    }
    return text;
}

std::string road_name(size_t target)
{
    return targets()[target].host + (targets()[target].tls ? ":443" : ":80");
}

Request *find(uint32_t number)
{
    const auto found = requests.find(number);
    return found == requests.end() ? nullptr : &found->second;
}

std::string describe(uint32_t number)
{
    const Request *request = find(number);
    if (request == nullptr) {
        return "no request " + hex(number);
    }
    return "request " + hex(number) + " (id " + hex(request->msg_id) + ", requester " +
           std::to_string(request->requester) + ") to " + road_name(request->target) + ", asked " +
           std::to_string(request->attempts) + " times until " + std::to_string(request->asked_at) +
           (request->is_handed_over ? ", handed over" : "") + (request->is_tried ? ", tried" : "") +
           (request->is_finished ? ", finished" : "") + (request->is_told ? ", told" : "");
}

bool is_for_kivren(const Request &request)
{
    return request.kind == Kind::BATCH || request.kind == Kind::TOKEN ||
           request.kind == Kind::FOLLOW;
}

bool send_request(const support::Requester &socket, Request request)
{
    const Lock lock(ledger_guard); // nobody hears of it before it is entered
    if (!socket.send(request.datagram)) {
        return false;
    }
    const uint32_t number = request.number;
    (void)requests.emplace(number, std::move(request));
    count("requests");
    return true;
}

void close(uint32_t number, std::string_view outcome)
{
    (void)requests.erase(number);
    count("requests " + std::string(outcome));
}

size_t count_open()
{
    const Lock lock(ledger_guard);
    return requests.size();
}

void report_open()
{
    const Lock lock(ledger_guard);
    for (const auto &[number, request] : requests) {
        report_fault("unexplained: " + describe(number));
    }
}

std::string head_of(uint32_t number, std::optional<size_t> length)
{
    return STATUS + hex(number) + "\r\n" +
           (length ? "Content-Length: " + std::to_string(*length) + "\r\n" : "") + "\r\n";
}

std::optional<Answer> ask(size_t target, uint32_t number, std::string_view text, bool has_length,
                          bool is_cut)
{
    const Lock lock(ledger_guard);
    Request *request = find(number);
    if (request == nullptr) {
        if (now_s() - down_at[target] > ECHO_S) {
            report_fault(road_name(target) + " is asked what nobody asks: " + hex(number));
        }
        return std::nullopt;
    }
    if (request->target != target || (!text.empty() && text != request->asked)) {
        report_fault(road_name(target) + " is asked wrongly: " + std::string(text.substr(0, 200)) +
                     " for " + describe(number));
    }
    request->attempts++;
    request->asked_at = now_s();
    request->may_be_cut = is_cut;
    request->head =
        head_of(number, has_length ? std::optional(request->body.size()) : std::nullopt);
    if (request->is_told || request->is_finished || request->attempts > ATTEMPTS_MAX) {
        report_fault("the server is asked too often: " + describe(number));
    }
    return Answer{request->head, request->body};
}

void note_down(size_t target)
{
    const Lock lock(ledger_guard);
    down_at[target] = now_s();
}

static bool may_be_cut(const Request &request)
{
    return request.may_be_cut || down_at[request.target] >= request.asked_at;
}

// Compares what was delivered with what the server said the latest time that it was asked: the
// body, as much as the daemon has room for, or the head of an answer without one.
static bool check_answer(Request &request, std::string_view bytes)
{
    const size_t room = PELKIN_MSG_MAX - 1 - request.head.size();
    const std::string_view body = std::string_view(request.body).substr(0, room);
    request.is_told_cut = bytes != (body.empty() ? request.head : body);
    return request.attempts > 0 &&
           (!request.is_told_cut ||
            (may_be_cut(request) && (bytes == request.head || body.starts_with(bytes))));
}

static void close_told(const Request &request)
{
    close(request.number, is_for_kivren(request) ? "told to kivren"
                          : request.is_told_cut  ? "answered as far as the server went"
                                                 : "answered");
}

static void tell(Request &request)
{
    request.is_told = true;
    if (request.is_finished) {
        close_told(request);
    }
}

void take_answer(size_t requester, const std::string &bytes)
{
    const Lock lock(ledger_guard);
    const size_t at = bytes.starts_with(STATUS) ? std::strlen(STATUS) : 0;
    const uint32_t number = number_behind(std::string_view(bytes).substr(at, 8), "");
    Request *request = find(number);
    if (request == nullptr || request->kind != Kind::TO_SOCKET || request->requester != requester ||
        request->is_told || !check_answer(*request, bytes)) {
        report_fault("requester " + std::to_string(requester) + " got a wrong answer (" +
                     std::to_string(bytes.size()) + " bytes): " + bytes.substr(0, 60) + " for " +
                     describe(number));
        return;
    }
    tell(*request);
}

// The report on the first stations, of an answer that ended early. The last station may have lost
// its verdict, and counts as good then.
static std::string cut_report(const std::string &report, const std::string &got)
{
    const auto stations = (uint32_t)((got.size() - REPORT_HEAD) / REPORT_ENTRY);
    const uint32_t length = 8 + stations * (uint32_t)REPORT_ENTRY;
    std::string cut = report.substr(0, sizeof(ipc_msg_hdr) + length);
    if (cut.size() == got.size() && stations > 0) {
        const size_t last = cut.size() - REPORT_ENTRY;
        std::memcpy(&cut[offsetof(ipc_msg_hdr, len)], &length, sizeof length);
        std::memcpy(&cut[REPORT_HEAD - sizeof stations], &stations, sizeof stations);
        cut[last] = (char)(cut[last] | (got[last] & 1));
    }
    return cut;
}

void take_kivren_message(const std::string &bytes)
{
    const Lock lock(ledger_guard);
    const bool is_removal = bytes.size() == sizeof(ipc_msg_hdr) + PELKIN_MAC_SIZE;
    const size_t address = is_removal ? sizeof(ipc_msg_hdr) : REPORT_HEAD + 4;
    uint32_t number = 0; // the address begins with it
    for (size_t i = address; i < address + sizeof number && i < bytes.size(); i++) {
        number = number << 8 | (uint8_t)bytes[i];
    }
    Request *request = find(number);
    count(is_removal ? "removals that kivren got" : "reports that kivren got");
    if (request == nullptr || request->is_told || request->attempts == 0 || request->told.empty() ||
        bytes != (request->kind == Kind::BATCH && may_be_cut(*request) && !is_removal
                      ? cut_report(request->told, bytes)
                      : request->told)) {
        report_fault("kivren got a wrong message of " + std::to_string(bytes.size()) +
                     " bytes for " + describe(number));
        return;
    }
    tell(*request);
}

std::vector<uint32_t> list_untold(size_t reader)
{
    const Lock lock(ledger_guard);
    return std::exchange(untold[reader], {});
}

void note_away(size_t reader)
{
    const Lock lock(ledger_guard);
    away_until[reader] = now_s();
}

// Why nothing came of a request, although everything that came has been read; null: no reason.
static const char *explain_silence(const Request &request)
{
    if (!is_for_kivren(request)) {
        return away_until[request.requester] < request.asked_at ? nullptr : "not delivered";
    }
    if (request.is_tried) {
        return away_until[KIVREN] < request.asked_at ? nullptr : "not delivered to kivren";
    }
    if (request.is_unchecked) {
        return "left unchecked";
    }
    if (request.attempts > 0 && (request.told.empty() || may_be_cut(request))) {
        return "with nothing to tell";
    }
    return request.kind != Kind::FOLLOW && may_be_ignored(request.asked_at)
               ? "whose result is ignored"
               : nullptr;
}

void settle_untold(const std::vector<uint32_t> &numbers)
{
    const Lock lock(ledger_guard);
    for (const uint32_t number : numbers) {
        const Request *request = find(number);
        if (request == nullptr) {
            continue; // its answer was among what was read
        }
        const char *reason = explain_silence(*request);
        if (reason == nullptr) {
            report_fault("no answer and no reason why: " + describe(number));
        }
        close(number, reason != nullptr ? reason : "unexplained");
    }
}

void finish(Request &request)
{
    request.is_finished = true;
    if (request.kind == Kind::DROPPED) {
        close(request.number, "dropped as asked");
    } else if (request.kind == Kind::TO_FILE) {
        const std::filesystem::path path = request.file;
        if (!check_answer(request, support::read_file(path))) {
            report_fault("a wrong answer in the file of " + describe(request.number));
        }
        (void)std::filesystem::remove(path);
        if (path.filename() == "answer") { // in a directory made for it alone
            (void)std::filesystem::remove(path.parent_path());
        }
        close_told(request);
    } else if (request.is_told) {
        close_told(request);
    } else {
        untold[is_for_kivren(request) ? KIVREN : request.requester].push_back(request.number);
    }
}

} // namespace soak
