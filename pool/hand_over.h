/*
 * Handing a task to a worker of its server: finding one with a free slot or starting one, taking
 * the slot, writing the task into the pipe, and giving the slot back when that fails, is one thing.
 */
#ifndef PELKIN_POOL_HAND_OVER_H
#define PELKIN_POOL_HAND_OVER_H

#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Hands the task over; a worker that turns out to have ended gives way to the next one, once a
 * worker had to be started there is one try. 0, also when the task was lost for want of room
 * (logged), or -1 (logged) when no worker could be started. Main thread; never blocks.
 */
int32_t pelkin_hand_over_task(const struct http_task *task);

#ifdef __cplusplus
}
#endif
#endif
