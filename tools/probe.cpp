#include "tools/probe.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/ipc_msg.h"
#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/output.h"

static bool receive_reply(int link, deadline until)
{
    while (const std::optional<std::string> message = receive_message(link, until)) {
        ipc_msg_hdr reply = {};
        if (message->size() == sizeof reply) {
            std::memcpy(&reply, message->data(), sizeof reply);
        }
        if (reply.msg_id == VOKMON_MSG_PROBE_REPLY) {
            return true;
        }
    }
    return false;
}

static probe_result probe_over(int link, double timeout_s)
{
    const deadline until = deadline_in(timeout_s);
    const auto started = std::chrono::steady_clock::now();
    const ipc_msg_hdr probe = {
        .reserved0 = 0, .src_module = 0, .reserved2 = 0, .msg_id = VOKMON_MSG_PROBE, .len = 0};
    const int status =
        send_message(link, PELKIN_MONITOR_SOCKET_PATH, {(const char *)&probe, sizeof probe}, until);
    if (status != STATUS_DONE) {
        return {.status = status, .answer_ms = 0, .not_allowed = false};
    }
    if (!receive_reply(link, until)) {
        say("pelkin has not answered the probe within %g s: its main loop may be held up. Look at "
            "its log, then restart it (systemctl restart pelkin)",
            timeout_s);
        return {.status = STATUS_NO_ANSWER, .answer_ms = 0, .not_allowed = false};
    }
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - started;
    return {.status = STATUS_DONE, .answer_ms = taken.count(), .not_allowed = false};
}

probe_result probe_daemon(double timeout_s)
{
    const int link = open_link(PELKIN_MONITOR_SOCKET_PATH);
    if (link < 0) {
        return {.status = STATUS_UNREACHABLE, .answer_ms = 0, .not_allowed = errno == EACCES};
    }
    const probe_result result = probe_over(link, timeout_s);
    (void)close(link);
    return result;
}

const char *json_alive(const probe_result &result)
{
    if (result.not_allowed) {
        return "null";
    }
    return result.status == STATUS_DONE ? "true" : "false";
}

int run_probe(const probe_command &command)
{
    const probe_result result = probe_daemon(command.timeout_s);
    const bool alive = result.status == STATUS_DONE;
    char text[80] = "";
    if (alive) {
        (void)std::snprintf(text, sizeof text,
                            command.json ? "{\"alive\":true,\"answer_ms\":%.3f}\n"
                                         : "alive: answered in %.3f ms\n",
                            result.answer_ms);
    } else if (command.json) {
        (void)std::snprintf(text, sizeof text, "{\"alive\":%s,\"answer_ms\":null}\n",
                            json_alive(result));
    }
    return write_out(text) ? result.status : STATUS_USAGE;
}
