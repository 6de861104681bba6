#include "tools/kivren_view.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#include <vector>

#include "core/daemon/signals.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"

static bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

int serve_kivren()
{
    return serve_socket(KIVREN_SOCKET_PATH, "kivren");
}

static std::string removal_text(const std::string &payload, const expected_message &expected,
                                bool *is_expected)
{
    mac_address mac = {};
    if (payload.size() != mac.size()) {
        return "";
    }
    std::memcpy(mac.data(), payload.data(), mac.size());
    *is_expected = expected.msg_id == KIVREN_MSG_DEL_STA_REQ && mac == expected.mac;
    return "delete station " + mac_text(mac.data()) + "\n";
}

static std::string report_text(const std::string &payload, const expected_message &expected,
                               bool *is_expected)
{
    static reauth_resp report;
    const size_t head = offsetof(reauth_resp, sta);
    if (payload.size() < head || payload.size() > sizeof report) {
        return "";
    }
    std::memcpy(&report, payload.data(), payload.size());
    // Compared as what fits, since the bytes of a forged count may not fit a size_t.
    const size_t stations = (payload.size() - head) / sizeof report.sta[0];
    if (report.sta_num < 0 || (uint64_t)report.sta_num != stations ||
        head + stations * sizeof report.sta[0] != payload.size()) {
        return "";
    }
    std::string text = "report: tag " + std::to_string(report.reauth_tag) +
                       ", stations: " + std::to_string(report.sta_num) + "\n";
    for (size_t i = 0; i < stations; i++) {
        text += "  " + mac_text(report.sta[i].mac) +
                (report.sta[i].is_valid != 0 ? " valid\n" : " not valid\n");
    }
    *is_expected =
        expected.msg_id == PELKIN_MSG_REAUTH_RESP && report.reauth_tag == expected.reauth_tag;
    return text;
}

std::string message_text(const std::string &message, const expected_message &expected,
                         bool *is_expected)
{
    *is_expected = false;
    ipc_msg_hdr header = {};
    if (message.size() < sizeof header) {
        return "";
    }
    std::memcpy(&header, message.data(), sizeof header);
    const std::string payload = message.substr(sizeof header);
    if (header.len != payload.size()) {
        return "";
    }
    switch (header.msg_id) {
    case KIVREN_MSG_DEL_STA_REQ:
        return removal_text(payload, expected, is_expected);
    case PELKIN_MSG_REAUTH_RESP:
        return report_text(payload, expected, is_expected);
    default:
        return "";
    }
}

// A message that came, printed. STATUS_NO_ANSWER: it is not the one that is waited for.
static int show_message(const std::string &message, const expected_message &expected)
{
    bool is_expected = false;
    const std::string text = message_text(message, expected, &is_expected);
    if (text.empty()) {
        say("dropped a message of %zu bytes that is neither a report nor a removal",
            message.size());
    }
    if (!write_out(text)) {
        return STATUS_USAGE;
    }
    return is_expected ? STATUS_DONE : STATUS_NO_ANSWER;
}

// The value of a single token's verification, "" when the record tells of none.
static std::string verdict_of(const log_record &record)
{
    static const std::string head = "The valid is ";
    const std::string message = message_of(record);
    const std::string value = message.rfind(head, 0) == 0 ? message.substr(head.size()) : "";
    return value == "invalid" ? "" : value;
}

// What the log says of the request. STATUS_NO_ANSWER: nothing that decides it.
static int read_log(int log, const expected_message &expected, request_watch *watch)
{
    std::vector<log_record> records;
    if (log >= 0) {
        take_records(log, &records);
    }
    for (const log_record &record : records) {
        note(watch, record);
        const std::string verdict = verdict_of(record);
        if (expected.msg_id == KIVREN_MSG_DEL_STA_REQ && !verdict.empty() && verdict != "false") {
            return write_out("keep station " + mac_text(expected.mac.data()) + ": valid is " +
                             verdict + "\n")
                       ? STATUS_DONE
                       : STATUS_USAGE;
        }
        if (is_no_verdict(message_of(record))) {
            say("the server's answer could not be read: %s", message_of(record).c_str());
            return STATUS_FAILED;
        }
    }
    if (is_lost(*watch)) {
        say("%s", failure_text(*watch).c_str());
        return STATUS_FAILED;
    }
    return STATUS_NO_ANSWER;
}

static void say_silence(int log, const expected_message &expected, const request_watch &watch)
{
    std::string why;
    if (log < 0) {
        why = "why stands in pelkin's log, which another program reads here";
    } else if (!watch.cause.empty()) {
        why = "pelkin's log: " + watch.cause;
    } else if (exists(PELKIN_IGNORE_VERIFICATION_FILE) || exists(PELKIN_IGNORE_RESULT_FILE)) {
        why = "verification seems to be switched off; see pelkinctl status";
    } else if (expected.msg_id == KIVREN_MSG_DEL_STA_REQ) {
        why = "nothing in pelkin's log; a longer --timeout may help";
    } else {
        why = "the server is slow, or knew none of the tokens";
    }
    say("no %s in time; %s",
        expected.msg_id == KIVREN_MSG_DEL_STA_REQ ? "verdict on the token" : "report", why.c_str());
}

int show_until(int kivren, int log, const expected_message &expected, request_watch *watch,
               deadline until)
{
    int status = STATUS_NO_ANSWER;
    while (status == STATUS_NO_ANSWER && milliseconds_left(until) > 0) {
        pollfd watched[] = {{.fd = kivren, .events = POLLIN, .revents = 0},
                            {.fd = log, .events = POLLIN, .revents = 0}};
        poll(watched, 2, milliseconds_left(std::min(until, watch->lost_at.value_or(until))));
        if (const std::optional<std::string> message = receive_message(kivren, deadline_in(0))) {
            status = show_message(*message, expected);
        } else {
            status = read_log(log, expected, watch);
        }
    }
    if (status == STATUS_NO_ANSWER) {
        say_silence(log, expected, *watch);
    }
    return status;
}
