#include "tools/http_command.h"

#include <unistd.h>

#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/output.h"

int hand_over(const delivery &to, const std::string &message)
{
    const int link = open_link(to.socket);
    if (link < 0) {
        return STATUS_UNREACHABLE;
    }
    const int status = send_message(link, to.socket, message, deadline_in(to.timeout_s));
    (void)close(link);
    return status;
}

static int ask_and_print(const delivery &to, const std::string &message)
{
    const deadline until = deadline_in(to.timeout_s);
    const int link = open_link(to.socket);
    if (link < 0) {
        return STATUS_UNREACHABLE;
    }
    int status = send_message(link, to.socket, message, until);
    if (status == STATUS_DONE) {
        const std::optional<std::string> answer = receive_message(link, until);
        if (!answer) {
            say("no answer within %g s: pelkin never says why. Its log does (pelkinctl log, or the "
                "system log), a longer --timeout may help",
                to.timeout_s);
            status = STATUS_NO_ANSWER;
        } else if (!write_answer(*answer)) {
            status = STATUS_USAGE;
        }
    }
    (void)close(link);
    return status;
}

static bool is_analysed(uint32_t msg_id)
{
    return msg_id == PELKIN_MSG_REAUTH_REQ || msg_id == PELKIN_MSG_FBAUTH_REQ;
}

// Nobody tells whether these succeed, so that is what is said.
static void say_where_the_answer_goes(const http_request &request)
{
    if (request.resp_method == PELKIN_RESP_FILE) {
        say("handed over to pelkin, which writes the answer to %s; a failure is in its log only",
            request.file_path.c_str());
    } else if (is_analysed(request.msg_id)) {
        say("handed over to pelkin, which analyses the answer and tells the station manager; a "
            "failure is in its log only");
    } else {
        say("handed over to pelkin, which drops the answer: it analyses those to the ids %#x and "
            "%#x only (--msg-id)",
            PELKIN_MSG_REAUTH_REQ, PELKIN_MSG_FBAUTH_REQ);
    }
}

int run_http(const http_command &command)
{
    const std::string message =
        request_message(command.request, text_data(command.mac, command.text));
    if (command.request.resp_method == PELKIN_RESP_SOCKET) {
        return ask_and_print(command.to, message);
    }
    const int status = hand_over(command.to, message);
    if (status == STATUS_DONE) {
        say_where_the_answer_goes(command.request);
    }
    return status;
}
