/*
 * The registry of workers: one thread record per worker, with the write end of its task pipe and
 * its count of free task slots. A worker is known by host text and scheme flag; when all workers
 * for a server have their slots taken, a further one is started for it. Handing a task over is
 * pool/hand_over.h, carrying it out the worker's business (pool/worker.h).
 *
 * Main thread only: there is no lock, and a worker never sees its record.
 */
#ifndef PELKIN_POOL_WORKER_REGISTRY_H
#define PELKIN_POOL_WORKER_REGISTRY_H

#include <stdint.h>

#include "core/http_task.h"
#include "pool/task_pipe.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Minutes without use after which a worker is released. */
#define PELKIN_IDLE_MINUTES 10

typedef struct THREAD_RECORD {
    int32_t pipe_fd[2]; /* 0: read end, the worker's to close; 1: write end, ours; -1 not open */
    int32_t sem_id;     /* System V semaphore, see pool/task_slots.h; -1 not made */
    int32_t last_used_time; /* minute of creation or of the latest hand-over */
    uint32_t is_https;
    char host[HTTP_TASK_HOST_SIZE];
    struct THREAD_RECORD *prev;
    struct THREAD_RECORD *next;
    struct THREAD_RECORD *bucket_next; /* next one of the registry's index */
    struct task_ledger ledger;         /* of the task pipe */
} THREAD_RECORD;

/* Head of the list of all workers, oldest first. Main thread only. */
extern THREAD_RECORD *pelkin_thread_list;

/*
 * The oldest worker for this server with a free task slot, which is then taken; null if none. A
 * caller that then hands no task over gives the slot back (pool/task_slots.h).
 */
THREAD_RECORD *pelkin_find_a_thread(uint32_t is_https, const char *host);

/*
 * Starts a worker for this server and appends its record, which the list owns; no slot is taken.
 * When there is no room for it, the records of workers that have ended are deleted and it is tried
 * once more. Null on failure (logged), with nothing left behind.
 */
THREAD_RECORD *pelkin_create_a_thread(uint32_t is_https, const char *host);

/* Unlinks the record and frees it; returns 0. The worker ends once it has done what is in its pipe.
 */
int32_t pelkin_del_one_thread_record(THREAD_RECORD *record, THREAD_RECORD **head);

/* Closes the write end, removes the semaphore and frees the record; null is ignored. Returns 0. */
int32_t pelkin_free_thread_record(THREAD_RECORD *record);

/* Deletes every record that has not been used for more than PELKIN_IDLE_MINUTES. */
void pelkin_release_idle_threads(THREAD_RECORD **head);

/* Deletes every record. 0, or -1 when there is none (logged). */
int32_t pelkin_release_all_threads(THREAD_RECORD **head);

/* Logs all records at debug level. 0, or -1 when there is none. */
int32_t pelkin_print_all_thread_record(const THREAD_RECORD *head);

#ifdef __cplusplus
}
#endif
#endif
