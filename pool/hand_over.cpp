#include "pool/hand_over.h"

#include <errno.h>

#include "log/log.h"
#include "pool/minute_clock.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "pool/worker_registry.h"

static const char INTAKE[] = "social_media_req_msg_proc";

// What a failed hand-over leaves behind. A worker that has ended takes its record along; from a
// full pipe only the slot is taken back, if one was taken.
static void give_up(THREAD_RECORD *record, int32_t error, bool has_slot)
{
    if (error == EPIPE) {
        pelkin_del_one_thread_record(record, &pelkin_thread_list);
    } else if (has_slot) {
        pelkin_return_task_slot(record->sem_id);
    }
}

int32_t pelkin_hand_over_task(const struct http_task *task)
{
    for (;;) {
        THREAD_RECORD *found = pelkin_find_a_thread(task->is_https, task->host);
        THREAD_RECORD *record =
            found != nullptr ? found : pelkin_create_a_thread(task->is_https, task->host);
        if (record == nullptr) {
            return -1;
        }
        const int32_t error = pelkin_send_task_noted(record->pipe_fd[1], task, &record->ledger);
        if (error == 0) {
            PELKIN_LOG_AS(INTAKE, DEBUG, "send task to thread OK. msg_id:%0x", task->msg_id);
            record->last_used_time = pelkin_cur_minute();
            return 0;
        }
        const bool tries_again = error == EPIPE && found != nullptr;
        if (tries_again) {
            PELKIN_LOG_AS(INTAKE, ERROR,
                          "failed to send task to thread. msg_id:%0x, thread should exit already, "
                          "del it then retry.",
                          task->msg_id);
        }
        give_up(record, error, found != nullptr);
        if (!tries_again) {
            PELKIN_LOG_AS(INTAKE, ERROR, "failed to send task to thread. msg_id:%0x", task->msg_id);
            return 0;
        }
    }
}
