#include "core/daemon/main_loop.h"

#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "core/daemon/intake.h"
#include "core/daemon/liveness.h"
#include "core/daemon/signals.h"
#include "core/ipc_send.h"
#include "crash/wall_clock.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/retry_pause.h"
#include "pool/minute_clock.h"
#include "pool/worker_registry.h"

static const char LOOP[] = "pelkin_main_loop";

enum loop_verdict {
    LOOP_GOES_ON,
    LOOP_FAILED, // something that was due could not be done, for now
    LOOP_ENDS,   // the request socket is gone for good
};

// Receives one datagram. The buffer is zero behind what was received: each pass clears what it got.
static enum loop_verdict receive_request(void)
{
    static uint8_t buffer[PELKIN_MSG_MAX] __attribute__((aligned(8)));
    struct sockaddr_un sender = {};
    socklen_t sender_length = sizeof sender;
    const ssize_t received =
        recvfrom(pelkin_sock, buffer, sizeof buffer, 0, (struct sockaddr *)&sender, &sender_length);
    if (received > 0) {
        pelkin_rcv_ipc_msg(buffer, (int32_t)received, &sender, sender_length);
        memset(buffer, 0, (size_t)received);
    } else if (received < 0) {
        const int error = errno;
        PELKIN_LOG_AS(LOOP, ERROR, "VOK_RECVFROM returns %d -- %s (%d)", (int)received,
                      error_text(error), error);
        return error == EBADF || error == ENOTSOCK ? LOOP_ENDS : LOOP_FAILED;
    }
    return LOOP_GOES_ON;
}

static enum loop_verdict run_one_pass(void)
{
    struct timeval timeout = {.tv_sec = PELKIN_LOOP_WAIT_S, .tv_usec = 0};
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(pelkin_sock, &readable);
    FD_SET(signal_pipe[0], &readable);
    const int ready = select(FD_SETSIZE, &readable, nullptr, nullptr, &timeout);
    const int error = errno;
    pelkin_mark_alive();
    crash_renew_zone_offset(crash_wall_clock());
    pelkin_report_lost_signals();
    if (ready < 0) {
        PELKIN_LOG_AS(LOOP, WARNING, "Select() returns %d -- %s (%d)", ready, error_text(error),
                      error);
        return error == EBADF ? LOOP_ENDS : LOOP_FAILED;
    }
    if (ready == 0) {
        return LOOP_GOES_ON;
    }
    enum loop_verdict verdict = LOOP_GOES_ON;
    if (FD_ISSET(pelkin_sock, &readable)) {
        verdict = receive_request();
    }
    if (verdict != LOOP_ENDS && FD_ISSET(signal_pipe[0], &readable) &&
        pelkin_handle_signal(signal_pipe[0]) != 0) {
        verdict = LOOP_FAILED;
    }
    return verdict;
}

void pelkin_main_loop(void)
{
    uint32_t failed_passes = 0;
    int32_t released_minute = pelkin_cur_minute();
    for (;;) {
        const enum loop_verdict verdict = run_one_pass();
        if (verdict == LOOP_ENDS) {
            return;
        }
        // A worker can fall idle only with the minute: most passes have nothing to look for.
        const int32_t minute = pelkin_cur_minute();
        if (minute != released_minute) {
            released_minute = minute;
            pelkin_release_idle_threads(&pelkin_thread_list);
        }
        if (verdict == LOOP_FAILED) {
            retry_pause(&failed_passes);
        } else {
            failed_passes = 0;
        }
    }
}
