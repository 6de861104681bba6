/*
 * Why a task is whole or absent. The main thread, the only writer, must never block, and a task of
 * which only a part was written would spoil every task behind it.
 *
 * A task of at most PIPE_BUF bytes is one write, which the kernel makes whole or refuses (pipe(7)).
 * For a larger one the room is looked at first. A pipe starts at the system's size, for most never
 * hold more than a task or two, and is doubled when a task does not fit, which costs microseconds
 * and keeps what is in it. The kernel counts a pipe's room in page-sized
 * slots, not in bytes: a write of n bytes puts its odd bytes (n modulo the page size) into the
 * newest slot if they fit behind what is there, and takes a fresh slot for every page of the rest;
 * if they don't fit, it takes fresh slots for all. A slot is never shared otherwise, and is free
 * again when its last byte has been read. What is known from outside is the number of unread bytes
 * (FIONREAD). But two neighbouring slots always hold more than one page together: either one of
 * them is full, or the second was opened because its bytes did not fit behind the first's. With
 * only the oldest slot partly read, b unread bytes therefore lie in at most 2 * ((b - 1) / (page +
 * 1)) + 2 slots. That errs on the side of refusing, by half in a crowded pipe, so the writer also
 * keeps a ledger of what its latest tasks took: how many slots are in use follows from how many of
 * them are unread. Both tell at most too many. The reader can only make more room between the look
 * and the write.
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
#include "platform/pipe_capacity.h"
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
    fcntl(ends[1], F_SETFL, fcntl(ends[1], F_GETFL) | O_NONBLOCK);
    return 0;
}

// How a task comes to lie in the pipe.
struct placing {
    size_t slots; // that it takes at most
    int32_t tail; // see struct task_ledger
};

static struct placing place_task(size_t length, int32_t tail, size_t page)
{
    const size_t odd = length % page;
    const bool fits_behind = odd > 0 && tail >= 0 && (size_t)tail + odd <= page;
    const size_t slots = length / page + (odd > 0 && !fits_behind ? 1 : 0);
    if (tail < 0) {
        return {.slots = slots, .tail = TASK_TAIL_UNKNOWN};
    }
    const size_t newest = fits_behind ? (size_t)tail + odd : odd;
    const bool ends_full = odd == 0 || (fits_behind && length > page);
    return {.slots = slots, .tail = (int32_t)(ends_full ? page : newest)};
}

// The slots that the newest `unread` bytes take at most.
static size_t count_used_slots(const struct task_ledger *ledger, size_t unread, size_t page)
{
    const size_t by_bytes = unread == 0 ? 0 : 2 * ((unread - 1) / (page + 1)) + 2;
    // One more than noted: the reader may have emptied the pipe before a task that was to lie in
    // the slot of the one before.
    size_t by_tasks = 1;
    size_t told = 0;
    for (uint32_t back = 1; told < unread; back++) {
        if (ledger == nullptr || back > TASK_LEDGER_SIZE || back > ledger->written) {
            return by_bytes;
        }
        const uint32_t at = (ledger->written - back) % TASK_LEDGER_SIZE;
        told += ledger->bytes[at];
        by_tasks += ledger->slots[at];
    }
    return by_bytes < by_tasks ? by_bytes : by_tasks;
}

static void note_task(struct task_ledger *ledger, size_t length, struct placing placing)
{
    if (ledger != nullptr) {
        const uint32_t at = ledger->written++ % TASK_LEDGER_SIZE;
        ledger->bytes[at] = (uint16_t)length;
        ledger->slots[at] = (uint16_t)placing.slots;
        ledger->tail = placing.tail;
    }
}

static bool double_pipe(int32_t write_end)
{
    const int32_t capacity = pipe_capacity(write_end);
    if (capacity >= TASK_PIPE_CAPACITY_MAX) {
        return false;
    }
    if (pipe_enlarge(write_end, 2 * capacity) != 0) {
        PELKIN_LOG_AS("send_data", ERROR, "task pipe stays at %d bytes: %s", capacity,
                      error_text(errno));
        return false;
    }
    return true;
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
            return errno;
        }
    }
    return 0;
}

int32_t send_data(int32_t fd, const void *buffer, size_t length)
{
    size_t done = 0;
    const int32_t error = write_all(fd, buffer, length, &done);
    if (error != 0) {
        log_send_error(error);
    }
    return error;
}

// Whether the pipe has room for the task, and how it will lie there. A small task is one write in
// any case: where it comes to lie is not worth a look.
static bool find_room(int32_t write_end, size_t length, const struct task_ledger *ledger,
                      struct placing *placing)
{
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    int unread = 0;
    *placing = place_task(length, TASK_TAIL_UNKNOWN, page);
    if (length <= PIPE_BUF || ioctl(write_end, FIONREAD, &unread) != 0) {
        return true; // what is no pipe that can be asked will say what is wrong at the write
    }
    if (ledger != nullptr) {
        *placing = place_task(length, unread == 0 ? (int32_t)page : ledger->tail, page);
    }
    const size_t used = count_used_slots(ledger, (size_t)unread, page);
    return used + placing->slots <= (size_t)pipe_capacity(write_end) / page;
}

int32_t pelkin_send_task_noted(int32_t write_end, const struct http_task *task,
                               struct task_ledger *ledger)
{
    const size_t length = HTTP_TASK_FIXED_SIZE + (size_t)task->dataLen;
    for (;;) {
        struct placing placing;
        size_t done = 0;
        int32_t error = EAGAIN;
        if (find_room(write_end, length, ledger, &placing)) {
            error = write_all(write_end, task, length, &done);
        }
        if (error == 0) {
            note_task(ledger, length, placing);
            return 0;
        }
        if (error == EAGAIN && done == 0) {
            if (pelkin_has_lost_its_reader(write_end)) {
                error = EPIPE;
            } else if (double_pipe(write_end)) {
                continue;
            }
        }
        log_send_error(error);
        // The kernel may run out of pages in the middle. The worker then waits for the rest of a
        // task that will never come, and must read the stream's end instead of the next task.
        return done > 0 ? EPIPE : error;
    }
}

int32_t pelkin_send_task(int32_t write_end, const struct http_task *task)
{
    return pelkin_send_task_noted(write_end, task, nullptr);
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
