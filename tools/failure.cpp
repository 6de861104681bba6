#include "tools/failure.h"

#include <cstdio>
#include <sys/ioctl.h>

#include "tools/daemon_process.h"
#include "tools/probe.h"
#include "tools/request_message.h"
#include "tools/workers.h"

static const double GRACE_S = 0.1;
static const uint32_t ERROR_LEVEL = 3;

static bool starts_with(std::string_view text, std::string_view head)
{
    return text.substr(0, head.size()) == head;
}

static const char NO_VERDICT[] = "answer not understood";

// The beginnings of the daemon's messages.
static const struct {
    const char *message;
    const char *cause;
} CAUSES[] = {
    {"can't get \"", "host name not found"},
    {"connect fail.", "no connection"},
    {"create tcp socket fail.", "no socket"},
    {"create ssl fail.", "no TLS"},
    {"new SSL with created CTX failed", "no TLS"},
    {"add SSL to tcp socket failed", "no TLS"},
    {"SSL connection failed", "no TLS"},
    {"Socket I/O Write Timeout", "server takes nothing"},
    {"Socket I/O Read Timeout", "server silent"},
    {"Socket Write error", "connection lost"},
    {"Socket Read error", "connection lost"},
    {"SSL write err_code", "connection lost"},
    {"SSL read err_code", "connection lost"},
    {"socket closed.", "connection lost"},
    {"can't find 2 CRLF", "no HTTP answer"},
    {"The response format is incorrect.", NO_VERDICT},
    {"The valid is invalid", NO_VERDICT},
    {"make directory failed", "file not written"},
    {"open file ", "file not written"},
    {"write fail.", "file not written"},
    {"failed to send ipc msg.", "message not delivered"},
    {"fill http task failed.", "request not understood"},
    {"host should NOT be NULL", "request not understood"},
    {"fbauth request without a station", "request not understood"},
    {"wechat check-follow request of", "request not understood"},
    {"failed to send data, send buffer", "queue full"},
    {"Malloc thread record failed.", "no worker"},
    {"Unable to create", "no worker"},
    {"semctl() error", "no worker"},
    {"cannot start social_media_thread", "no worker"},
};

const char *failure_cause(std::string_view message)
{
    for (const auto &one : CAUSES) {
        if (starts_with(message, one.message)) {
            return one.cause;
        }
    }
    return nullptr;
}

bool is_no_verdict(std::string_view message)
{
    return failure_cause(message) == NO_VERDICT;
}

request_watch watch_request(const std::string &url, uint32_t msg_id)
{
    request_watch watch;
    watch.server = server_of(url);
    watch.msg_id = msg_id;
    return watch;
}

// A message that names another server has nothing to do with this one.
static bool is_of_another(const request_watch &watch, const std::string &message)
{
    static const std::string resolver = "can't get \"";
    const std::string host = watch.server.substr(0, watch.server.rfind(':'));
    return starts_with(message, resolver) && !starts_with(message, resolver + host + "\"");
}

static bool is_the_end(const request_watch &watch, const std::string &message)
{
    char refused[64];
    std::snprintf(refused, sizeof refused, "failed to send task to thread. msg_id:%x",
                  watch.msg_id);
    return message == "thread exit: " + watch.server ||
           message == "can't connect to " + watch.server || message == refused;
}

void note(request_watch *watch, const log_record &record)
{
    const std::string message = message_of(record);
    if (message == "thread begin: " + watch->server) {
        watch->lost_at.reset();
        watch->cause = "";
    } else if (message ==
               "thread " + watch->server + " will exit because write side pipe has been closed.") {
        watch->is_released = true;
    } else if (is_the_end(*watch, message)) {
        if (!watch->is_released) {
            watch->lost_at = deadline_in(GRACE_S);
        }
        watch->is_released = false;
    } else if (const char *cause = failure_cause(message); cause != nullptr) {
        // The worker's own cause is its last one before its end, most probably.
        if (record.level <= ERROR_LEVEL && !watch->lost_at && !is_of_another(*watch, message)) {
            watch->cause = std::string(cause) + " (" + message + ")";
        }
    }
}

// Whether it serves a socket's requests is seen by what it has left unread: unix(7), SIOCOUTQ.
static bool has_taken_request(int link)
{
    int unread = 0;
    return ioctl(link, TIOCOUTQ, &unread) == 0 && unread == 0;
}

void look_for_worker(request_watch *watch, int link)
{
    if (watch->lost_at || !has_taken_request(link)) {
        return;
    }
    if (watch->daemon == 0) {
        watch->daemon = find_daemon(probe_daemon(PELKIN_MONITOR_SOCKET_PATH, 1).pid).pid;
    }
    const std::string host = watch->server.substr(0, watch->server.rfind(':'));
    if (watch->daemon != 0 && !has_worker(watch->daemon, host)) {
        watch->lost_at = deadline_in(GRACE_S);
    }
}

bool is_lost(const request_watch &watch)
{
    return watch.lost_at && milliseconds_left(*watch.lost_at) == 0;
}

std::string failure_text(const request_watch &watch)
{
    return "pelkin could not ask " + watch.server + ": " +
           (watch.cause.empty() ? "its worker has ended; pelkin's log says why" : watch.cause);
}
