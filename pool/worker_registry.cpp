#include "pool/worker_registry.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "log/log.h"
#include "platform/error_text.h"
#include "pool/minute_clock.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "pool/worker.h"

THREAD_RECORD *pelkin_thread_list;

// The records by server, so that a request costs the same beside a thousand workers: each bucket
// chains those of a few servers in the list's order. A power of two.
static const uint32_t BUCKETS = 256;
static THREAD_RECORD *buckets[BUCKETS];

// FNV-1a (draft-eastlake-fnv-17, 32 bits). Callers choose the hosts, but each costs them a worker.
static THREAD_RECORD **find_bucket(uint32_t is_https, const char *host)
{
    uint32_t hash = 2166136261u ^ is_https;
    for (; *host != '\0'; host++) {
        hash = (hash ^ (uint8_t)*host) * 16777619u;
    }
    return &buckets[hash % BUCKETS];
}

int32_t pelkin_print_all_thread_record(const THREAD_RECORD *head)
{
    if (head == nullptr) {
        PELKIN_LOG_DEBUG("thread list is blank.");
        return -1;
    }
    if (pelkin_log_printed(TU_LEVEL_DEBUG) == 0) {
        return 0;
    }
    const int32_t minute = pelkin_cur_minute();
    int32_t number = 1;
    for (const THREAD_RECORD *record = head; record != nullptr; record = record->next, number++) {
        // This listing precedes every hand-over: with hundreds of workers, copies that the next
        // record replaces would cost more than the hand-over itself.
        PELKIN_LOG_DEBUG_SUPERSEDED("thread RECOED[%d]: %s:%d, last_used_time:%d, cur_minute:%d",
                                    number, record->host, pelkin_port(record->is_https),
                                    record->last_used_time, minute);
    }
    return 0;
}

static bool serves(const THREAD_RECORD *record, uint32_t is_https, const char *host)
{
    return record->is_https == is_https && strcmp(record->host, host) == 0;
}

THREAD_RECORD *pelkin_find_a_thread(uint32_t is_https, const char *host)
{
    pelkin_print_all_thread_record(pelkin_thread_list);
    for (THREAD_RECORD *record = *find_bucket(is_https, host); record != nullptr;
         record = record->bucket_next) {
        if (!serves(record, is_https, host)) {
            continue;
        }
        if (pelkin_take_task_slot(record->sem_id) == 0) {
            PELKIN_LOG_DEBUG_SUPERSEDED("Find a Thread %s:%d, current available task slots[%d]",
                                        host, pelkin_port(is_https),
                                        pelkin_count_task_slots(record->sem_id));
            return record;
        }
        PELKIN_LOG_DEBUG_SUPERSEDED(
            "Find an overloaded thread %s:%d, current available task slots[%d]", host,
            pelkin_port(is_https), pelkin_count_task_slots(record->sem_id));
    }
    PELKIN_LOG_DEBUG("can't find Thread for %s:%d", host, pelkin_port(is_https));
    return nullptr;
}

static void append_record(THREAD_RECORD *record)
{
    THREAD_RECORD *tail = nullptr;
    for (THREAD_RECORD *other = pelkin_thread_list; other != nullptr; other = other->next) {
        tail = other;
    }
    record->prev = tail;
    if (tail == nullptr) {
        pelkin_thread_list = record;
    } else {
        tail->next = record;
    }
    THREAD_RECORD **link = find_bucket(record->is_https, record->host);
    while (*link != nullptr) {
        link = &(*link)->bucket_next;
    }
    *link = record;
}

static void leave_bucket(THREAD_RECORD *record)
{
    THREAD_RECORD **link = find_bucket(record->is_https, record->host);
    while (*link != nullptr && *link != record) {
        link = &(*link)->bucket_next;
    }
    if (*link != nullptr) {
        *link = record->bucket_next;
    }
}

// Deletes the records whose workers have ended by themselves: their descriptors and semaphores are
// of no more use. Whether there were any.
static bool sweep_ended_workers(void)
{
    bool has_swept = false;
    for (THREAD_RECORD *record = pelkin_thread_list; record != nullptr;) {
        THREAD_RECORD *next = record->next;
        if (pelkin_has_lost_its_reader(record->pipe_fd[1])) {
            pelkin_del_one_thread_record(record, &pelkin_thread_list);
            has_swept = true;
        }
        record = next;
    }
    return has_swept;
}

// Closes the write end and removes the slots, as far as they are there.
static void release_equipment(THREAD_RECORD *record)
{
    if (record->pipe_fd[1] >= 0) {
        close(record->pipe_fd[1]);
        record->pipe_fd[1] = -1;
    }
    if (record->sem_id >= 0) {
        pelkin_remove_task_slots(record->sem_id);
        record->sem_id = -1;
    }
}

// Makes the record's pipe, its slots and its worker. 0, or -1 (logged); what was made is released.
static int32_t equip_record(THREAD_RECORD *record)
{
    if (pelkin_open_task_pipe(record->pipe_fd) != 0) {
        PELKIN_LOG_AS("pelkin_create_a_thread", ERROR, "Unable to create pipe: %s",
                      error_text(errno));
        return -1;
    }
    record->sem_id = pelkin_make_task_slots();
    if (record->sem_id >= 0 && pelkin_start_worker(record) == 0) {
        return 0;
    }
    close(record->pipe_fd[0]);
    record->pipe_fd[0] = -1;
    release_equipment(record);
    return -1;
}

THREAD_RECORD *pelkin_create_a_thread(uint32_t is_https, const char *host)
{
    THREAD_RECORD *record = (THREAD_RECORD *)calloc(1, sizeof *record);
    if (record == nullptr) {
        PELKIN_LOG_ERROR("Malloc thread record failed.");
        return nullptr;
    }
    record->pipe_fd[0] = -1;
    record->pipe_fd[1] = -1;
    record->sem_id = -1;
    record->last_used_time = pelkin_cur_minute();
    record->is_https = is_https;
    (void)snprintf(record->host, sizeof record->host, "%s", host);
    // What workers that have ended still hold may be just what is missing.
    if (equip_record(record) != 0 && (!sweep_ended_workers() || equip_record(record) != 0)) {
        PELKIN_LOG_DEBUG("failed to create social_media_thread: %s:%d", host,
                         pelkin_port(is_https));
        pelkin_free_thread_record(record);
        return nullptr;
    }
    append_record(record);
    PELKIN_LOG_DEBUG("Add new social_media_thread: %s:%d", host, pelkin_port(is_https));
    return record;
}

int32_t pelkin_free_thread_record(THREAD_RECORD *record)
{
    if (record == nullptr) {
        return 0;
    }
    release_equipment(record);
    free(record);
    return 0;
}

int32_t pelkin_del_one_thread_record(THREAD_RECORD *record, THREAD_RECORD **head)
{
    if (*head == record) {
        *head = record->next;
    } else if (record->prev != nullptr) {
        record->prev->next = record->next;
    }
    if (record->next != nullptr) {
        record->next->prev = record->prev;
    }
    leave_bucket(record);
    PELKIN_LOG_DEBUG("Delete thread RECORD: %s:%d, last_used_time:%d, cur_minute:%d", record->host,
                     pelkin_port(record->is_https), record->last_used_time, pelkin_cur_minute());
    return pelkin_free_thread_record(record);
}

void pelkin_release_idle_threads(THREAD_RECORD **head)
{
    if (head == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return;
    }
    const int32_t minute = pelkin_cur_minute();
    for (THREAD_RECORD *record = *head; record != nullptr;) {
        THREAD_RECORD *next = record->next;
        if (record->last_used_time + PELKIN_IDLE_MINUTES < minute) {
            pelkin_del_one_thread_record(record, head);
        }
        record = next;
    }
}

int32_t pelkin_release_all_threads(THREAD_RECORD **head)
{
    if (head == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    if (*head == nullptr) {
        PELKIN_LOG_ERROR("There is no thread record, no need to delete.");
        return -1;
    }
    while (*head != nullptr) {
        pelkin_del_one_thread_record(*head, head);
    }
    return 0;
}
