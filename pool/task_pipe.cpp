/*
 * Why a task is whole or absent. The main thread, the only writer, must never block, and a task of
 * which only a part was written would spoil every task behind it.
 *
 * A task of at most PIPE_BUF bytes is one write, which the kernel makes whole or refuses (pipe(7)).
 * For a larger one the room is looked at first. The kernel counts a pipe's room in page-sized
 * slots, not in bytes: a write of n bytes puts its odd bytes (n modulo the page size) into the
 * newest slot if they fit behind what is there, and takes a fresh slot for every page of the rest;
 * if they don't fit, it takes fresh slots for all. A slot is never shared otherwise, and is free
 * again when its last byte has been read. What is known from outside is the number of unread bytes
 * (FIONREAD). But two neighbouring slots always hold more than one page together: either one of
 * them is full, or the second was opened because its bytes did not fit behind the first's. With
 * only the oldest slot partly read, b unread bytes therefore lie in at most 2 * ((b - 1) / (page +
 * 1)) + 2 slots, and a task of n bytes needs at most n / page, rounded up, of the others. The
 * reader can only make more room between the look and the write. The rule errs on the side of
 * refusing: up to half of a crowded pipe's slots may stay unused by large tasks, none by small
 * ones.
 */
#include "pool/task_pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "log/log.h"
#include "platform/error_text.h"
#include "platform/retry_pause.h"

int32_t pelkin_open_task_pipe(int32_t pipe_fd[2])
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        pipe_fd[0] = -1;
        pipe_fd[1] = -1;
        return -1;
    }
    pipe_fd[0] = ends[0];
    pipe_fd[1] = ends[1];
    const int flags = fcntl(ends[1], F_GETFL);
    fcntl(ends[1], F_SETFL, flags | O_NONBLOCK);
    // Best effort: with less, fewer tasks can wait, and a hand-off that finds no room says so.
    (void)fcntl(ends[1], F_SETPIPE_SZ, TASK_PIPE_CAPACITY);
    return 0;
}

static bool has_room_for(int32_t write_end, size_t length)
{
    int unread = 0;
    const int capacity = fcntl(write_end, F_GETPIPE_SZ);
    if (capacity < 0 || ioctl(write_end, FIONREAD, &unread) != 0) {
        return true; // not a pipe that can be asked: let the write say what is wrong
    }
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    const size_t used = unread == 0 ? 0 : 2 * (((size_t)unread - 1) / (page + 1)) + 2;
    const size_t needed = (length + page - 1) / page;
    return used + needed <= (size_t)capacity / page;
}

bool pelkin_has_lost_its_reader(int32_t write_end)
{
    struct pollfd watched = {.fd = write_end, .events = 0, .revents = 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & POLLERR) != 0;
}

static void log_send_error(int error)
{
    if (error == EAGAIN) {
        PELKIN_LOG_AS("send_data", ERROR, "failed to send data, send buffer is full? err(%d):%s",
                      error, error_text(error));
    } else {
        PELKIN_LOG_AS("send_data", ERROR, "failed to send data, err(%d):%s", error,
                      error_text(error));
    }
}

// `*done`: the bytes that were written.
static int32_t write_all(int32_t fd, const void *buffer, size_t length, size_t *done)
{
    const uint8_t *bytes = (const uint8_t *)buffer;
    uint32_t interrupted = 0;
    for (*done = 0; *done < length;) {
        const ssize_t written = write(fd, bytes + *done, length - *done);
        if (written >= 0) {
            *done += (size_t)written;
        } else if (errno == EINTR) {
            retry_pause(&interrupted);
        } else {
            const int error = errno;
            log_send_error(error);
            return error;
        }
    }
    return 0;
}

int32_t send_data(int32_t fd, const void *buffer, size_t length)
{
    size_t done = 0;
    return write_all(fd, buffer, length, &done);
}

int32_t pelkin_send_task(int32_t write_end, const struct http_task *task)
{
    const size_t length = HTTP_TASK_FIXED_SIZE + (size_t)task->dataLen;
    if (length > PIPE_BUF && !has_room_for(write_end, length)) {
        const int error = pelkin_has_lost_its_reader(write_end) ? EPIPE : EAGAIN;
        log_send_error(error);
        return error;
    }
    // The kernel may run out of pages in the middle. The worker then waits for the rest of a task
    // that will never come, and must read the stream's end instead of the next task.
    size_t done = 0;
    const int32_t error = write_all(write_end, task, length, &done);
    return error != 0 && done > 0 ? EPIPE : error;
}

int32_t read_data(int32_t fd, void *buffer, size_t length)
{
    uint8_t *bytes = (uint8_t *)buffer;
    uint32_t without_data = 0;
    for (size_t done = 0; done < length;) {
        const ssize_t got = read(fd, bytes + done, length - done);
        if (got == 0) {
            return 0;
        }
        if (got > 0) {
            done += (size_t)got;
            without_data = 0;
        } else if (errno == EINTR || errno == EAGAIN) {
            retry_pause(&without_data);
        } else {
            const int error = errno;
            PELKIN_LOG_ERROR("failed to read data, err(%d):%s", error, error_text(error));
            return -1;
        }
    }
    return (int32_t)length;
}

int32_t pelkin_rcv_task(int32_t read_end, struct http_task *task)
{
    const int32_t rc = read_data(read_end, task, HTTP_TASK_FIXED_SIZE);
    if (rc < 1) {
        return rc;
    }
    if (task->dataLen < 0 || task->dataLen > HTTP_TASK_DATA_MAX) {
        PELKIN_LOG_ERROR("wrong task->dataLen:%d (less than 0 or bigger than max buf size:%d)",
                         task->dataLen, HTTP_TASK_DATA_MAX);
        return -1;
    }
    return task->dataLen == 0 ? rc : read_data(read_end, task->data, (size_t)task->dataLen);
}
