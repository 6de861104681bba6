#include "tests/soak/log_watch.h"

#include <charconv>
#include <optional>

#include "tests/soak/faults.h"

namespace soak
{

static const char SYSTEM_LOG[] = "/dev/log";

/* A line without syslog's head: "function():text". */
struct Line {
    std::string_view function;
    std::string_view text;
};

static std::optional<Line> read_line(std::string_view bytes)
{
    const size_t head = bytes.find("]: ");
    const size_t call = bytes.find("():", head == std::string_view::npos ? 0 : head);
    if (head == std::string_view::npos || call == std::string_view::npos) {
        return std::nullopt;
    }
    return Line{.function = bytes.substr(head + 3, call - head - 3),
                .text = bytes.substr(call + 3)};
}

static uint32_t hex_behind(std::string_view text, std::string_view key)
{
    const size_t at = text.find(key);
    uint32_t number = 0;
    if (at != std::string_view::npos) {
        const char *digits = text.data() + at + key.size();
        (void)std::from_chars(digits, text.data() + text.size(), number, 16);
    }
    return number;
}

// "host:port" up to a space, a comma or the end of the line.
static std::string road_behind(std::string_view text, std::string_view key)
{
    const std::string_view rest = text.substr(key.size());
    return std::string(rest.substr(0, rest.find_first_of(" ,\n")));
}

static std::string address_in(std::string_view text)
{
    const size_t at = text.find("mac:");
    std::string address;
    for (size_t i = 0; at != std::string_view::npos && i < PELKIN_MAC_SIZE; i++) {
        address += (char)hex_behind(text.substr(std::min(text.size(), at + 4 + 3 * i)), "");
    }
    address.resize(PELKIN_MAC_SIZE);
    return address;
}

using Note = void (*)(LogWatch *watch, const Line &line, std::string_view key);

// Marks the request that a line is about.
static void mark_request(LogWatch *watch, const Line &line, uint32_t number, bool Entry::*what)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    const auto found = watch->ledger->entries.find(number);
    if (found == watch->ledger->entries.end()) {
        report_fault("no request leads to: " + std::string(line.text));
        return;
    }
    found->second.*what = true;
}

static void lose_removal(LogWatch *watch, const Line &line, std::string_view)
{
    watch->counts.removals_failed++;
    const std::string address = address_in(line.text);
    const uint32_t number = number_of_address(address);
    if (end_of_address(address) == FOLLOW_STATION) {
        watch->checks->note(number, &FollowClient::removal_failed);
    } else {
        mark_request(watch, line, number, &Entry::removal_failed);
    }
}

static void lack_directory(LogWatch *watch, const Line &line, std::string_view)
{
    mark_request(watch, line, hex_behind(line.text, "/none/"), &Entry::directory_failed);
}

static void switch_over(LogWatch *watch, const Line &line, std::string_view)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    watch->ledger->requests_ignored = hex_behind(line.text, "ignore_fb_token_verification = ") == 1;
    watch->counts.switches_set++;
}

static void ignore_result(LogWatch *watch, const Line &, std::string_view)
{
    watch->counts.result_ignored++;
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    watch->ledger->unnamed.result_ignored++;
    if (watch->ledger->results_ignored_until < now_s()) {
        report_fault("a verification's result is ignored without the switch");
    }
}

static void fail_delivery(LogWatch *watch, const Line &, std::string_view)
{
    watch->counts.undelivered++;
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    watch->ledger->unnamed.undelivered++;
}

static void finish_task(LogWatch *watch, const Line &line, std::string_view key)
{
    const std::string road = road_behind(line.text, key);
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    if (line.text.find("finished task") != std::string_view::npos) {
        note_finished(*watch->ledger, road, hex_behind(line.text, "(msg_id:"));
    } else if (line.text.find("write side pipe has been closed") != std::string_view::npos) {
        note_leaving(*watch->ledger, road);
    } else if (line.text.find("received a task") == std::string_view::npos) {
        report_fault("unexpected: " + std::string(line.text));
    }
}

static void hand_over(LogWatch *watch, const Line &line, std::string_view key)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    if (key.starts_with("send")) {
        note_handed_over(*watch->ledger, hex_behind(line.text, key));
    } else if (line.text.find("thread should exit already") != std::string_view::npos) {
        note_worker_gone(*watch->ledger);
    } else {
        note_refused(*watch->ledger, Outcome::NO_ROOM);
    }
}

static void never(LogWatch *, const Line &line, std::string_view)
{
    report_fault("the daemon says: " + std::string(line.text.substr(0, 200)));
}

template <auto note> static void number_note(LogWatch *watch, const Line &line, std::string_view)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    note(*watch->ledger, hex_behind(line.text, "/r/"));
}

template <auto note> static void road_note(LogWatch *watch, const Line &line, std::string_view key)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    note(*watch->ledger, road_behind(line.text, key));
}

template <Outcome outcome> static void refuse(LogWatch *watch, const Line &, std::string_view)
{
    const std::lock_guard<std::mutex> lock(watch->ledger->guard);
    note_refused(*watch->ledger, outcome);
}

template <auto counter> static void count(LogWatch *watch, const Line &, std::string_view)
{
    (watch->counts.*counter)++;
}

template <auto mark> static void client_note(LogWatch *watch, const Line &line, std::string_view)
{
    watch->checks->note(number_of_address(address_in(line.text)), mark);
}

struct Reading {
    std::string_view key; // the text starts with it
    Note note;
    std::string_view function = ""; // if not "", only lines of this one
};

static const Reading READINGS[] = {
    {"thread RECOED[", nullptr}, // the most frequent one first
    {"HTTP request message:", number_note<note_taken>},
    {"task: HTTP HEAD:", number_note<note_task>},
    {"send task to thread OK. msg_id:", hand_over},
    {"failed to send task to thread.", hand_over},
    {"Add new social_media_thread: ", road_note<note_added>},
    {"Delete thread RECORD: ", road_note<note_deleted>},
    {"thread begin: ", road_note<note_begun>},
    {"thread exit: ", road_note<note_exit>},
    {"thread list is blank", nullptr},
    {"thread ", finish_task},
    {"fill http task failed.", refuse<Outcome::NO_HOST>},
    {"ignore fb token verification.", refuse<Outcome::IGNORED>},
    {"ignore fb token verification result.", ignore_result},
    {"failed to send ipc msg.", fail_delivery},
    {"make directory failed:", lack_directory},
    {"Send/Recv http(s) failed.", count<&LineCounts::exchanges_failed>, "perform_task"},
    {"can't connect to ", count<&LineCounts::connections_failed>, "connect_to_server"},
    {"Success to send request to kivren.", count<&LineCounts::reports_sent>},
    {"Failed to send request to kivren.", count<&LineCounts::reports_failed>},
    {"Send a del sta(", count<&LineCounts::removals_tried>},
    {"Failed to send del sta(", lose_removal},
    {"Received length mismatched", count<&LineCounts::mismatched>},
    {"wechat check-follow request of ", count<&LineCounts::short_check>},
    {"this should be reply of del sta", count<&LineCounts::replies>},
    {"received SIGUSR1", count<&LineCounts::levels_set>},
    {"received SIGUSR2", switch_over},
    {"added new client(", client_note<&FollowClient::is_added>},
    {"failed to check client(", client_note<&FollowClient::is_unchecked>},
    {"to free client(", client_note<&FollowClient::is_freed>},
    {"failed to create social_media_thread", never},
    {"open file ", never},
    {"write fail.", never},
    {"create ssl fail.", never},
    {"create tcp socket fail.", never},
    {"wrong task->dataLen", never},
    {"failed to read data", never},
    {"write signal number to pipe fail", never},
    {"Attributes should NOT be NULL", never},
    {"VOK_RECVFROM returns", never},
    {"Pelkin has been timeout", never},
};

static void read_bytes(LogWatch *watch, std::string_view bytes)
{
    keep_log_line(bytes);
    watch->counts.lines++;
    const std::optional<Line> line = read_line(bytes);
    if (!line) {
        return;
    }
    for (const Reading &reading : READINGS) {
        if (line->text.starts_with(reading.key)) {
            if (reading.note != nullptr &&
                (reading.function.empty() || line->function == reading.function)) {
                reading.note(watch, *line, reading.key);
            }
            return;
        }
    }
}

LogWatch::LogWatch(Ledger *with_ledger, FollowChecks *with_checks)
    : ledger(with_ledger), checks(with_checks),
      reader(SYSTEM_LOG, [this](std::string_view bytes) { read_bytes(this, bytes); })
{
}

} // namespace soak
