#include "tools/probe.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include "core/ipc_msg.h"
#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/init_system.h"
#include "tools/output.h"
#include "tools/own_socket.h"

// Asks the kernel to tell who sent what arrives: unix(7), SO_PASSCRED.
static void want_credentials(int link)
{
    const int on = 1;
    setsockopt(link, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
}

// One datagram, if it is a reply to a probe; `*pid` receives its sender.
static bool take_reply(int link, pid_t *pid)
{
    ipc_msg_hdr reply = {};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    iovec piece = {.iov_base = &reply, .iov_len = sizeof reply};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(link, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got != (ssize_t)sizeof reply || (message.msg_flags & MSG_TRUNC) != 0 ||
        reply.msg_id != VOKMON_MSG_PROBE_REPLY) {
        return false;
    }
    const cmsghdr *head = CMSG_FIRSTHDR(&message);
    if (head != nullptr && head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_CREDENTIALS) {
        ucred sender;
        std::memcpy(&sender, CMSG_DATA(head), sizeof sender);
        *pid = sender.pid;
    }
    return true;
}

static bool wait_for_reply(int link, deadline until, pid_t *pid)
{
    pollfd watched = {.fd = link, .events = POLLIN, .revents = 0};
    while (poll(&watched, 1, milliseconds_left(until)) != 0) {
        if (take_reply(link, pid)) {
            return true;
        }
        if (milliseconds_left(until) == 0) {
            break;
        }
    }
    return false;
}

static probe_result probe_over(int link, const std::string &socket, double timeout_s)
{
    const deadline until = deadline_in(timeout_s);
    const auto started = std::chrono::steady_clock::now();
    const ipc_msg_hdr probe = {
        .reserved0 = 0, .src_module = 0, .reserved2 = 0, .msg_id = VOKMON_MSG_PROBE, .len = 0};
    probe_result result;
    want_credentials(link);
    const int error = try_to_send(link, {(const char *)&probe, sizeof probe}, until);
    if (error != 0 && error != EAGAIN) {
        result.status = STATUS_UNREACHABLE;
        result.problem = unreachable_text(socket, error);
    } else if (error == EAGAIN || !wait_for_reply(link, until, &result.pid)) {
        char text[64];
        std::snprintf(text, sizeof text, "pelkin has not answered the probe within %g s",
                      timeout_s);
        result.status = STATUS_NO_ANSWER;
        result.problem = std::string(text) +
                         ": its main loop may be held up. Look at its log, then restart it" +
                         command_hint("restart");
    }
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - started;
    result.answer_ms = taken.count();
    return result;
}

probe_result probe_daemon(const std::string &socket, double timeout_s)
{
    const int link = try_to_open_link(socket);
    if (link < 0) {
        const int error = errno;
        probe_result result;
        result.status = STATUS_UNREACHABLE;
        result.not_allowed = error == EACCES;
        result.problem = unreachable_text(socket, error);
        return result;
    }
    probe_result result = probe_over(link, socket, timeout_s);
    close_own_socket(link);
    return result;
}

const char *json_alive(const probe_result &result)
{
    if (result.not_allowed) {
        return "null";
    }
    return result.status == STATUS_DONE ? "true" : "false";
}

// Says or prints, as far as that is wanted. Returns the exit status.
static int tell(const probe_result &result, bool json)
{
    const bool alive = result.status == STATUS_DONE;
    char text[80] = "";
    if (!alive) {
        say("%s", result.problem.c_str());
    }
    if (alive) {
        std::snprintf(text, sizeof text,
                      json ? "{\"alive\":true,\"answer_ms\":%.3f}\n"
                           : "alive: answered in %.3f ms\n",
                      result.answer_ms);
    } else if (json) {
        std::snprintf(text, sizeof text, "{\"alive\":%s,\"answer_ms\":null}\n", json_alive(result));
    }
    return is_quiet() || write_out(text) ? result.status : STATUS_USAGE;
}

int run_probe(const probe_command &command)
{
    return tell(probe_daemon(command.socket, command.timeout_s), command.json);
}

int run_wait(const probe_command &command)
{
    static const int PAUSE_MS = 20;
    static const double SLICE_S = 1; // a daemon that has been replaced leaves a probe unanswered
    const deadline until = deadline_in(command.timeout_s);
    for (;;) {
        const double left_s = milliseconds_left(until) / 1000.0;
        const probe_result result =
            probe_daemon(command.socket, std::clamp(left_s, 0.001, SLICE_S));
        if (result.status == STATUS_DONE || result.not_allowed || milliseconds_left(until) == 0) {
            return tell(result, command.json);
        }
        poll(nullptr, 0, std::min(PAUSE_MS, milliseconds_left(until)));
    }
}
