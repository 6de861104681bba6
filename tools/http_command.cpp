#include "tools/http_command.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <poll.h>

#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/failure.h"
#include "tools/output.h"
#include "tools/own_socket.h"

int hand_over(const delivery &to, const std::string &message)
{
    const int link = open_link(to.socket);
    if (link < 0) {
        return STATUS_UNREACHABLE;
    }
    const int status = send_message(link, to.socket, message, deadline_in(to.timeout_s));
    close_own_socket(link);
    return status;
}

// A request from its sending until its answer is printed.
struct exchange {
    std::string url;
    int link;
    deadline until;
    request_watch watch;
    bool is_over;
    int status;
    std::string answer;
    std::string failure; // why there is none
};

static std::string message_of(const http_command &command, const std::string &url)
{
    http_request request = command.request;
    request.url = url;
    return request_message(request, text_data(command.mac, command.text));
}

static exchange start_exchange(const http_command &command, const std::string &url)
{
    exchange started = {.url = url,
                        .link = open_link(command.to.socket),
                        .until = deadline_in(command.to.timeout_s),
                        .watch = watch_request(url, command.request.msg_id),
                        .is_over = false,
                        .status = STATUS_UNREACHABLE,
                        .answer = "",
                        .failure = ""};
    if (started.link >= 0) {
        started.status =
            send_message(started.link, command.to.socket, message_of(command, url), started.until);
    }
    started.is_over = started.status != STATUS_DONE;
    return started;
}

static void end_exchange(exchange *ended, int status, const std::string &failure)
{
    ended->is_over = true;
    ended->status = status;
    ended->failure = failure;
}

static std::string silence_text(const exchange &ended, double timeout_s, bool is_watched)
{
    char text[64];
    std::snprintf(text, sizeof text, "no answer within %g s", timeout_s);
    if (!is_watched) {
        return std::string(text) + "; why stands in pelkin's log, which another program reads here";
    }
    return ended.watch.cause.empty()
               ? std::string(text) + ", and nothing in pelkin's log; a longer --timeout may help"
               : std::string(text) + "; pelkin's log: " + ended.watch.cause;
}

static const double LOOK_S = 0.1; // how often the workers are looked at, where the log is not read

// What is there to be read comes before what the log said of it.
static void look_after(exchange *open, double timeout_s, bool is_watched)
{
    if (std::optional<std::string> answer = receive_message(open->link, deadline_in(0))) {
        open->answer = *answer;
        open->is_over = true;
    } else if (is_lost(open->watch)) {
        end_exchange(open, STATUS_FAILED, failure_text(open->watch));
    } else if (milliseconds_left(open->until) == 0) {
        end_exchange(open, STATUS_NO_ANSWER, silence_text(*open, timeout_s, is_watched));
    }
}

// Waits until something has happened to one of them, then looks after all.
static void attend(std::deque<exchange> *all, int log, double timeout_s)
{
    std::vector<pollfd> watched = {{.fd = log, .events = POLLIN, .revents = 0}};
    deadline next = all->front().until;
    for (const exchange &one : *all) {
        if (!one.is_over) {
            watched.push_back({.fd = one.link, .events = POLLIN, .revents = 0});
            next = std::min({next, one.until, one.watch.lost_at.value_or(one.until)});
        }
    }
    const deadline look = deadline_in(LOOK_S);
    poll(watched.data(), watched.size(), milliseconds_left(log >= 0 ? next : std::min(next, look)));
    std::vector<log_record> records;
    if (log >= 0) {
        take_records(log, &records);
    }
    for (exchange &one : *all) {
        for (const log_record &record : records) {
            note(&one.watch, record);
        }
        if (!one.is_over) {
            look_after(&one, timeout_s, log >= 0);
        }
        if (!one.is_over && log < 0 && milliseconds_left(look) == 0) {
            look_for_worker(&one.watch, one.link);
        }
    }
}

// Of several answers each ends its line, so that the next one begins a line of its own.
static int print_exchange(const exchange &ended, bool is_one_of_many)
{
    const std::string head = is_one_of_many ? ended.url + ": " : "";
    if (!ended.failure.empty()) {
        say("%s%s", head.c_str(), ended.failure.c_str());
    }
    if (ended.status != STATUS_DONE) {
        return ended.status;
    }
    const bool is_open = is_one_of_many && !ended.answer.empty() && ended.answer.back() != '\n';
    return write_answer(ended.answer + (is_open ? "\n" : "")) ? STATUS_DONE : STATUS_USAGE;
}

// At most command.parallel of them are under way or wait for their turn to be printed.
static int ask_and_print(const http_command &command)
{
    const int log = try_to_serve_log();
    std::deque<exchange> all;
    size_t next = 0;
    int status = STATUS_DONE;
    while (next < command.urls.size() || !all.empty()) {
        if (next < command.urls.size() && all.size() < command.parallel) {
            all.push_back(start_exchange(command, command.urls[next]));
            const bool is_reached = all.back().status != STATUS_UNREACHABLE;
            next = is_reached ? next + 1 : command.urls.size();
        } else if (!all.front().is_over) {
            attend(&all, log, command.to.timeout_s);
        } else {
            const int printed = print_exchange(all.front(), command.urls.size() > 1);
            status = status == STATUS_DONE ? printed : status;
            close_own_socket(all.front().link);
            all.pop_front();
        }
    }
    close_own_socket(log);
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

static int hand_over_all(const http_command &command)
{
    for (const std::string &url : command.urls) {
        const int status = hand_over(command.to, message_of(command, url));
        if (status != STATUS_DONE) {
            return status;
        }
    }
    say_where_the_answer_goes(command.request);
    return STATUS_DONE;
}

int run_http(const http_command &command)
{
    return command.request.resp_method == PELKIN_RESP_SOCKET ? ask_and_print(command)
                                                             : hand_over_all(command);
}
