/*
 * The task pipe: how a task travels from the main thread to its worker, as the task's fixed part
 * and its `dataLen` data bytes. There is no other framing, so the stream must stay whole; see
 * task_pipe.cpp for how it does.
 */
#ifndef PELKIN_POOL_TASK_PIPE_H
#define PELKIN_POOL_TASK_PIPE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes up to which a task pipe grows on demand: 100 tasks of any size fit. */
#define TASK_PIPE_CAPACITY_MAX (8 * 1024 * 1024)

/* Tasks that a ledger reaches back: those in the slots, and a new worker's first one. */
#define TASK_LEDGER_SIZE 101
#define TASK_TAIL_UNKNOWN (-1)

/* What the latest tasks written into a pipe took of it; all zeros for a new pipe. The writer's. */
struct task_ledger {
    uint32_t written; /* tasks so far; task n stands at n modulo TASK_LEDGER_SIZE */
    int32_t tail;     /* where the newest page ends that is in use, or TASK_TAIL_UNKNOWN */
    uint16_t bytes[TASK_LEDGER_SIZE];
    uint16_t slots[TASK_LEDGER_SIZE]; /* pages at most */
};

/*
 * Makes a pipe of the system's size, both ends close-on-exec, the write end non-blocking. 0, or -1
 * with errno set and both ends -1. Main thread.
 */
int32_t pelkin_open_task_pipe(int32_t pipe_fd[2]);

/*
 * Writes a task whole or not at all. 0, or the errno value that stopped it: EAGAIN when the pipe
 * may lack the room and can be enlarged no further, EPIPE when it is of no use any more, because
 * the worker has gone or memory ran short in the middle of the task (logged). Main thread; never
 * blocks.
 */
int32_t pelkin_send_task(int32_t write_end, const struct http_task *task);

/* The same with the pipe's ledger, which lets more tasks wait in a crowded pipe. */
int32_t pelkin_send_task_noted(int32_t write_end, const struct http_task *task,
                               struct task_ledger *ledger);

/*
 * Reads one task. Above 0 on success, 0 at the end of the stream (also in the middle of a task), -1
 * on an error or a `dataLen` out of range (logged). Worker; blocks while the pipe is empty.
 */
int32_t pelkin_rcv_task(int32_t read_end, struct http_task *task);

/*
 * Whether the worker has closed its end: its unread bytes count on as if it could still read them,
 * so a full pipe does not tell. Main thread.
 */
bool pelkin_has_lost_its_reader(int32_t write_end);

/* Writes all of `buffer`: 0, or the errno value that stopped it (logged). */
int32_t send_data(int32_t fd, const void *buffer, size_t length);

/* Reads exactly `length` bytes: `length`, 0 at the end of the stream, -1 on an error (logged). */
int32_t read_data(int32_t fd, void *buffer, size_t length);

#ifdef __cplusplus
}
#endif
#endif
