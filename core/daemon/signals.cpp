#include "core/daemon/signals.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/switches.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/pipe_capacity.h"
#include "platform/read_number.h"

int32_t signal_pipe[2] = {-1, -1};

// Unread bytes in the pipe from which further signals count as lost: half of what it takes. A full
// pipe blocks its writer, and in the handler that could be the pipe's only reader. With half of it
// free, every thread of the process may be in the handler at once. Written before the handler is
// installed.
static int signal_bytes_max;
// Of a flood of lost signals a line each would hold the main loop up for longer than the flood.
static const uint32_t LOST_SIGNALS_TOLD = 16;

// What the handler could not pass on: how many numbers, and why the latest. Atomic: written by the
// handler on any thread, taken by the main thread.
static uint32_t lost_signals;
static int32_t lost_signal_errno;

void pelkin_signal_handler(int signal_number)
{
    const int saved_errno = errno;
    const int32_t number = signal_number;
    int unread = 0;
    errno = 0;
    if (ioctl(signal_pipe[1], FIONREAD, &unread) == 0 && unread >= signal_bytes_max) {
        errno = EAGAIN;
    }
    if (errno != 0 || write(signal_pipe[1], &number, sizeof number) != (ssize_t)sizeof number) {
        __atomic_store_n(&lost_signal_errno, errno, __ATOMIC_RELAXED);
        (void)__atomic_add_fetch(&lost_signals, 1, __ATOMIC_RELEASE);
    }
    errno = saved_errno;
}

void pelkin_report_lost_signals(void)
{
    const uint32_t lost = __atomic_exchange_n(&lost_signals, 0, __ATOMIC_ACQUIRE);
    for (uint32_t told = 0; told < lost && told < LOST_SIGNALS_TOLD; told++) {
        const int error = __atomic_load_n(&lost_signal_errno, __ATOMIC_RELAXED);
        PELKIN_LOG_AS("pelkin_signal_handler", ERROR,
                      "write signal number to pipe fail. errno=%d,%s\n", error, error_text(error));
    }
}

// The main loop watches the read end with select(), whose sets end at FD_SETSIZE.
static int open_signal_pipe(void)
{
    if (pipe2(signal_pipe, O_CLOEXEC) != 0) {
        return -1;
    }
    signal_bytes_max = pipe_capacity(signal_pipe[1]) / 2;
    if (signal_pipe[0] < FD_SETSIZE) {
        return 0;
    }
    (void)close(signal_pipe[0]);
    (void)close(signal_pipe[1]);
    errno = EMFILE;
    return -1;
}

int32_t pelkin_signal_init(void)
{
    static const int handled[] = {SIGUSR1, SIGUSR2, SIGCHLD};
    (void)signal(SIGPIPE, SIG_IGN);
    if (open_signal_pipe() != 0) {
        PELKIN_LOG_ERROR("Unable to create pipe: %s", error_text(errno));
        return -1;
    }
    struct sigaction action = {};
    action.sa_handler = pelkin_signal_handler;
    action.sa_flags = SA_RESTART;
    (void)sigemptyset(&action.sa_mask);
    for (const int number : handled) {
        (void)sigaddset(&action.sa_mask, number);
    }
    for (const int number : handled) {
        (void)sigaction(number, &action, nullptr);
    }
    return 0;
}

int32_t pelkin_handle_signal(int32_t read_end)
{
    int32_t number = 0;
    const ssize_t got = read(read_end, &number, sizeof number);
    if (got != (ssize_t)sizeof number) {
        PELKIN_LOG_ERROR("the bytes of signal number read from pipe invalid: %d\n", (int)got);
        return -1;
    }
    switch (number) {
    case SIGUSR1:
        pelkin_set_log_level();
        break;
    case SIGUSR2:
        pelkin_set_debug_switch();
        break;
    case SIGPIPE:
        break;
    case SIGCHLD:
        (void)func_waitpid();
        break;
    default:
        PELKIN_LOG_ERROR("No handler for Signal %d\n", number);
        break;
    }
    return 0;
}

int32_t pelkin_read_log_level_file(int32_t *level)
{
    // Non-blocking: whatever stands at that path, a named pipe say, must not hold the main loop.
    const int fd = open(PELKIN_LEVEL_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char text[256];
    const ssize_t got = read(fd, text, sizeof text - 1);
    (void)close(fd);
    text[got > 0 ? got : 0] = '\0';

    (void)read_number(text, level);
    return 0;
}

void pelkin_set_log_level(void)
{
    int32_t level = TU_LEVEL_ERROR;
    (void)pelkin_read_log_level_file(&level);
    pelkin_set_trace_level((uint32_t)level);
    PELKIN_LOG_NOTICE("received SIGUSR1, set log_level = %d", level);
}

static uint32_t follow_marker(uint32_t *which, const char *path)
{
    const uint32_t on = access(path, F_OK) == 0 ? 1 : 0;
    __atomic_store_n(which, on, __ATOMIC_RELAXED);
    return on;
}

void pelkin_set_debug_switch(void)
{
    const uint32_t request =
        follow_marker(&ignore_fb_token_verification, PELKIN_IGNORE_VERIFICATION_FILE);
    const uint32_t result =
        follow_marker(&ignore_fb_token_verification_result, PELKIN_IGNORE_RESULT_FILE);
    PELKIN_LOG_NOTICE("received SIGUSR2, set ignore_fb_token_verification = %u, "
                      "ignore_fb_token_verification_result = %u",
                      request, result);
}

int32_t func_waitpid(void)
{
    int status = 0;
    pid_t child = waitpid(-1, &status, WNOHANG);
    for (; child > 0; child = waitpid(-1, &status, WNOHANG)) {
        PELKIN_LOG_DEBUG("child %d exit.", child);
    }
    return child;
}
