// How often each request was asked and answered, and what else is counted.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "core/ipc_msg.h"
#include "social/reauth_msg.h"
#include "tests/soak/soak.h"

namespace soak
{

static const uint32_t FIRST_NUMBER = 0x20000000u; // far from message ids with a meaning
static const int ATTEMPTS_MAX = 4;                // one and three repetitions
static const size_t LINES_KEPT = 20000;
static const size_t FAULTS_PRINTED = 30;
static const char STATUS[] = "HTTP/1.0 200 "; // the number follows

struct Entry {
    uint8_t target;
    uint8_t reader; // who gets what comes of it
    uint8_t asked = 0;
    uint8_t told = 0;
    bool has_length = true; // of the server's latest answer
};

static std::recursive_mutex guard; // of all below
using Lock = std::lock_guard<std::recursive_mutex>;
static std::vector<Entry> entries; // by number
static std::set<uint32_t> open;    // that must come to their end
static std::vector<size_t> open_at(targets().size());
static bool is_off[REQUESTERS + 1]; // readers that do not read
static bool ignoring;
static std::map<std::string, size_t> counts;
static std::deque<std::string> latest_lines;
static size_t faults;

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
        (void)std::from_chars(digits, std::min(digits + 8, text.data() + text.size()), number, 16);
    }
    return number;
}

void report_fault(const std::string &text)
{
    const Lock lock(guard);
    const char *path = std::getenv("SOAK_LOG");
    if (++faults <= FAULTS_PRINTED) {
        std::printf("FAULT at %.1f s (seed %u): %s\n", now_s(), support::seed(), text.c_str());
    }
    if (faults == 1 && path != nullptr) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        for (const std::string &line : latest_lines) {
            file << line << '\n';
        }
        std::printf("  the daemon's latest log lines are in %s\n", path);
    }
    (void)std::fflush(stdout);
}

size_t fault_count()
{
    const Lock lock(guard);
    return faults;
}

void count(const std::string &what)
{
    const Lock lock(guard);
    counts[what]++;
}

size_t counted(const std::string &what)
{
    const Lock lock(guard);
    return counts[what];
}

std::string summary()
{
    const Lock lock(guard);
    std::string text;
    for (const auto &[what, times] : counts) {
        text += "  " + std::to_string(times) + " " + what + "\n";
    }
    return text;
}

// Behind syslog's head a line is "function():text".
void take_log_line(std::string_view bytes)
{
    static const std::string told[] = {"received SIGUSR1",
                                       "received SIGUSR2",
                                       "Received length mismatched",
                                       "wechat check-follow request of ",
                                       "this should be reply of del sta",
                                       "fill http task failed."};
    static const std::string never[] = {"failed to create social_media_thread",
                                        "make directory failed:",
                                        "open file ",
                                        "write fail.",
                                        "create ssl fail.",
                                        "create tcp socket fail.",
                                        "wrong task->dataLen",
                                        "failed to read data",
                                        "write signal number to pipe fail",
                                        "VOK_RECVFROM returns",
                                        "Pelkin has been timeout"};
    const Lock lock(guard);
    latest_lines.emplace_back(bytes.substr(0, 240));
    if (latest_lines.size() > LINES_KEPT) {
        latest_lines.pop_front();
    }
    const size_t call = bytes.find("():");
    const std::string_view text = call == std::string_view::npos ? "" : bytes.substr(call + 3);
    for (const std::string &key : told) {
        if (text.starts_with(key)) {
            count(key);
        }
    }
    for (const std::string &key : never) {
        if (text.starts_with(key)) {
            report_fault("the daemon says what it never should: " + std::string(bytes));
        }
    }
}

static Entry *find(uint32_t number)
{
    const size_t index = number - FIRST_NUMBER;
    return index < entries.size() ? &entries[index] : nullptr;
}

static void fault_of(uint32_t number, const std::string &what)
{
    const Entry *entry = find(number);
    report_fault(what + ": request " + hex(number) +
                 (entry == nullptr ? ", which is none"
                                   : ", reader " + std::to_string(entry->reader) + ", of " +
                                         targets()[entry->target].host + ", asked " +
                                         std::to_string(entry->asked) + ", told " +
                                         std::to_string(entry->told)));
}

// It has come to its end, or may have been lost.
static void close(uint32_t number)
{
    if (open.erase(number) > 0) {
        open_at[find(number)->target]--;
    }
}

bool send_request(const support::Requester &socket, size_t requester, size_t target)
{
    const Lock lock(guard); // nobody hears of it before it is entered
    const uint32_t number = FIRST_NUMBER + (uint32_t)entries.size();
    const Plan plan = plan_of(number, target);
    if (!socket.send(plan.datagram)) {
        return false;
    }
    const bool is_verification = plan.kind == Kind::BATCH || plan.kind == Kind::TOKEN;
    entries.push_back(
        {.target = (uint8_t)target,
         .reader = (uint8_t)(is_verification || plan.kind == Kind::FOLLOW ? KIVREN : requester)});
    if (is_faithful(target) && !(is_verification && ignoring)) {
        (void)open.insert(number);
        open_at[target]++;
    }
    count("requests");
    return true;
}

size_t count_open(std::optional<size_t> target)
{
    const Lock lock(guard);
    return target ? open_at[*target] : open.size();
}

void report_open()
{
    const Lock lock(guard);
    for (const uint32_t number : open) {
        fault_of(number, "lost");
    }
}

std::string head_of(uint32_t number, std::optional<size_t> length)
{
    return STATUS + hex(number) + "\r\n" +
           (length ? "Content-Length: " + std::to_string(*length) + "\r\n" : "") + "\r\n";
}

std::optional<std::string> note_asked(size_t target, uint32_t number, std::string_view text,
                                      bool has_length)
{
    const Lock lock(guard);
    Entry *entry = find(number);
    if (entry == nullptr || entry->target != target) {
        fault_of(number, targets()[target].host + " is asked what nobody asks of it");
        return std::nullopt;
    }
    const Plan plan = plan_of(number, target);
    if (!text.empty() && text != plan.asked) {
        fault_of(number, "asked wrongly: " + std::string(text.substr(0, 200)));
    }
    entry->has_length = has_length;
    if (++entry->asked > (is_faithful(target) ? 1 : ATTEMPTS_MAX) || entry->told > 0) {
        fault_of(number, "asked too often");
    }
    const bool is_silent = plan.kind != Kind::TO_SOCKET && plan.kind != Kind::TO_FILE;
    if ((is_silent && plan.told.empty()) || is_off[entry->reader]) {
        close(number);
    }
    return plan.body;
}

// What was delivered, against what the server said: the body, as much as the daemon has room for,
// or the head of an answer without one. A fickle server's may end early.
static bool is_right(uint32_t number, const Plan &plan, std::string_view bytes)
{
    const Entry &entry = *find(number);
    const std::string head =
        head_of(number, entry.has_length ? std::optional(plan.body.size()) : std::nullopt);
    const std::string body = plan.body.substr(0, PELKIN_MSG_MAX - 1 - head.size());
    return bytes == (body.empty() ? head : body) ||
           (!is_faithful(entry.target) && (bytes == head || body.starts_with(bytes)));
}

// A cut answer leads to a report of the stations up to there, of which the last one's verdict may
// have lost its end, and reads as "true" then.
static bool is_right_message(const Plan &plan, const Entry &entry, const std::string &bytes)
{
    const size_t head = sizeof(ipc_msg_hdr) + offsetof(reauth_resp, sta);
    if (bytes == plan.told || plan.kind != Kind::BATCH || is_faithful(entry.target)) {
        return bytes == plan.told;
    }
    const size_t named = (bytes.size() - std::min(bytes.size(), head)) / sizeof(reauth_resp_sta);
    support::Stations cut = plan.stations;
    if (named == 0 || named > cut.size()) {
        return false;
    }
    cut.resize(named);
    const bool is_same = bytes == support::report(cut);
    cut.back().is_valid = true;
    return is_same || bytes == support::report(cut);
}

static uint32_t number_in(size_t reader, const std::string &bytes)
{
    if (reader != KIVREN) {
        return number_behind(bytes, bytes.starts_with(STATUS) ? STATUS : "");
    }
    ipc_msg_hdr header = {};
    (void)bytes.copy((char *)&header, sizeof header);
    uint32_t number = 0; // the first station's address begins with it
    (void)bytes.copy((char *)&number, sizeof number,
                     std::min(bytes.size(), sizeof header + (header.msg_id == PELKIN_MSG_REAUTH_RESP
                                                                 ? offsetof(reauth_resp, sta[0].mac)
                                                                 : 0)));
    return __builtin_bswap32(number);
}

void take_answer(size_t reader, const std::string &bytes)
{
    const Lock lock(guard);
    const uint32_t number = number_in(reader, bytes);
    Entry *entry = find(number);
    if (entry == nullptr || entry->reader != reader || entry->asked == 0 || entry->told++ > 0) {
        fault_of(number, "an answer that nobody waits for");
        return;
    }
    const Plan plan = plan_of(number, entry->target);
    if (reader == KIVREN ? !is_right_message(plan, *entry, bytes)
                         : plan.kind != Kind::TO_SOCKET || !is_right(number, plan, bytes)) {
        fault_of(number, "a wrong answer of " + std::to_string(bytes.size()) + " bytes");
    }
    close(number);
    count(reader == KIVREN ? "messages that kivren got" : "requests answered");
}

void take_files(bool is_end)
{
    for (const auto &found : std::filesystem::directory_iterator("/tmp/answers")) {
        const std::string name = found.path().filename();
        const uint32_t number = number_behind(name, "");
        const std::string bytes = support::read_file(file_of(number));
        const Lock lock(guard);
        Entry *entry = find(number);
        const bool is_whole = entry != nullptr && entry->asked > 0 && !bytes.empty() &&
                              is_right(number, plan_of(number, entry->target), bytes);
        if (is_whole) {
            entry->told++;
            close(number);
            count("requests answered");
            (void)std::filesystem::remove_all(found.path());
        } else if (is_end) {
            fault_of(number, "a wrong answer in " + name);
        }
    }
}

// Of a reader's, those asked about; of verifications all.
static void excuse(size_t reader, bool only_asked)
{
    for (auto number = open.begin(); number != open.end();) {
        const uint32_t here = *number++;
        const Entry *entry = find(here);
        if (entry->reader == reader && (!only_asked || entry->asked > 0) &&
            (only_asked || entry->target != API)) {
            close(here);
        }
    }
}

void set_reading(size_t reader, bool is_reading)
{
    const Lock lock(guard);
    is_off[reader] = !is_reading;
    if (!is_reading) {
        excuse(reader, true);
    }
}

void set_ignoring(bool is_ignoring)
{
    const Lock lock(guard);
    ignoring = is_ignoring;
    if (is_ignoring) {
        excuse(KIVREN, false);
    }
}

} // namespace soak
