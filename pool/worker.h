/*
 * The worker: a detached thread that serves one server over one kept-alive connection. It connects,
 * then carries out the tasks from its pipe one after another and delivers each answer. It ends when
 * its pipe is closed, or when its connection cannot be made or an exchange fails for good; tasks
 * that then still wait in its pipe are lost, and the registry learns of its end from EPIPE.
 */
#ifndef PELKIN_POOL_WORKER_H
#define PELKIN_POOL_WORKER_H

#include <stdint.h>

#include "pool/worker_registry.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Starts the worker of a record with default thread attributes. It gets what it needs by copy, so
 * the record may go at any time; from here on it owns the pipe's read end. 0, or -1 (logged) when
 * there is no memory or no thread; the read end is then still the caller's. Main thread.
 */
int32_t pelkin_start_worker(const THREAD_RECORD *record);

/*
 * Waits until every worker has ended, at most `timeout_ms` milliseconds: one in the middle of a
 * request takes as long as its server. 0, or -1 when the time is up. Main thread.
 */
int32_t pelkin_wait_for_workers(int32_t timeout_ms);

/* The thread's body; `start` is the worker's own memory, which it frees. Returns null. */
void *social_media_thread(void *start);

#ifdef __cplusplus
}
#endif
#endif
