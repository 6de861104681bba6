/*
 * The count of a worker's free task slots: a System V semaphore, taken from by the main thread and
 * given back to by the worker. No operation waits. Both sides ask for undo: the adjustments of one
 * process cancel out, and the set is removed with its record.
 */
#ifndef PELKIN_POOL_TASK_SLOTS_H
#define PELKIN_POOL_TASK_SLOTS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Tasks that may be handed to a worker before it takes them off its pipe. */
#define PELKIN_TASK_SLOTS 100

/* A new set with PELKIN_TASK_SLOTS free slots: its id, or -1 (logged). The caller removes it. */
int32_t pelkin_make_task_slots(void);

/* Removes the set; later operations on its id fail harmlessly. */
void pelkin_remove_task_slots(int32_t sem_id);

/* Takes a free slot: 0, or -1 when there is none. Main thread. */
int32_t pelkin_take_task_slot(int32_t sem_id);

/* Gives a slot back. Any thread; harmless on a removed set. */
void pelkin_return_task_slot(int32_t sem_id);

/* The free slots now, or -1 on a removed set; for log messages. Any thread. */
int32_t pelkin_count_task_slots(int32_t sem_id);

#ifdef __cplusplus
}
#endif
#endif
