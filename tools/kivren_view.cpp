#include "tools/kivren_view.h"

#include <cstring>

#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"

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
    if (report.sta_num < 0 ||
        head + (size_t)report.sta_num * sizeof report.sta[0] != payload.size()) {
        return "";
    }
    std::string text = "report: tag " + std::to_string(report.reauth_tag) +
                       ", stations: " + std::to_string(report.sta_num) + "\n";
    for (int32_t i = 0; i < report.sta_num; i++) {
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

int show_until(int kivren, const expected_message &expected, deadline until)
{
    while (const std::optional<std::string> message = receive_message(kivren, until)) {
        bool is_expected = false;
        const std::string text = message_text(*message, expected, &is_expected);
        if (text.empty()) {
            say("dropped a message of %zu bytes that is neither a report nor a removal",
                message->size());
        }
        if (!write_out(text)) {
            return STATUS_USAGE;
        }
        if (is_expected) {
            return STATUS_DONE;
        }
    }
    if (expected.msg_id == KIVREN_MSG_DEL_STA_REQ) {
        say("no request to delete the station in time: its token holds, or the server could not be "
            "asked; pelkin's log tells which (pelkinctl log, or the system log)");
    } else {
        say("no report in time: the server could not be asked, or knew none of the tokens; "
            "pelkin's "
            "log tells which (pelkinctl log, or the system log)");
    }
    return STATUS_NO_ANSWER;
}
