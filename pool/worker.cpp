#include "pool/worker.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "core/ipc_send.h"
#include "core/switches.h"
#include "crash/signal_stack.h"
#include "http/connection.h"
#include "http/exchange.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/poll_one.h"
#include "platform/stack_release.h"
#include "platform/thread_name.h"
#include "platform/thread_start.h"
#include "pool/answer_file.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "social/fbauth.h"
#include "social/reauth_answer.h"
#include "social/reauth_request.h"

static const char WORKER[] = "social_media_thread";
// Seconds after a task for which a worker keeps the memory that it took.
static const int32_t BUSY_S = 1;
static const char CREATION[] = "pelkin_create_a_thread";

/*
 * All that a worker has. It lives in pages of its own, mapped at its start and unmapped at its end:
 * they don't depend on the size of the thread's stack, and a page that no task was large enough to
 * reach takes no memory. Between tasks every byte behind the data and the copy is zero, because
 * each task clears what it wrote.
 */
struct worker {
    int32_t read_end;
    int32_t sem_id;
    uint32_t is_https;
    char host[HTTP_TASK_HOST_SIZE];
    SSL_CTX *context; // a reference of the worker's own: shutdown may drop the daemon's meanwhile
    SSL *tls;         // null for a plain worker
    int32_t sock;
    int32_t response_length;
    struct http_task task;
    // The task's data as it arrived; the analyses read it as the record of its message id.
    uint8_t data_copy[HTTP_TASK_DATA_MAX] __attribute__((aligned(8)));
    char response[PELKIN_MSG_MAX];
};

// Frees all but the descriptors.
static void free_worker(struct worker *worker)
{
    SSL_free(worker->tls); // null is ignored
    SSL_CTX_free(worker->context);
    (void)munmap(worker, sizeof *worker);
}

// Workers that have not ended. Atomic: counted up by the main thread, down by each worker at its
// end.
static uint32_t live_workers;

static_assert(sizeof(struct reauth_attr) <= HTTP_TASK_DATA_MAX, "a batch fits the copy");

int32_t pelkin_start_worker(const THREAD_RECORD *record)
{
    void *memory = mmap(nullptr, sizeof(struct worker), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        PELKIN_LOG_AS(CREATION, ERROR, "cannot start social_media_thread thread.");
        return -1;
    }
    struct worker *worker = (struct worker *)memory;
    worker->read_end = record->pipe_fd[0];
    worker->sem_id = record->sem_id;
    worker->is_https = record->is_https;
    memcpy(worker->host, record->host, sizeof worker->host);
    worker->sock = -1;
    worker->context = pelkin_hold_ctx();

    pthread_t thread;
    (void)__atomic_add_fetch(&live_workers, 1, __ATOMIC_RELAXED);
    if (start_thread(&thread, social_media_thread, worker) != 0) {
        PELKIN_LOG_AS(CREATION, ERROR, "cannot start social_media_thread thread.");
        (void)__atomic_sub_fetch(&live_workers, 1, __ATOMIC_RELAXED);
        free_worker(worker);
        return -1;
    }
    const int error = pthread_detach(thread);
    if (error != 0) {
        PELKIN_LOG_AS(CREATION, ERROR, "Cannot detach thread, errno:%d,%s\n", error,
                      error_text(error));
    }
    return 0;
}

int32_t pelkin_wait_for_workers(int32_t timeout_ms)
{
    static const int step_ms = 1;
    for (int32_t waited_ms = 0; __atomic_load_n(&live_workers, __ATOMIC_ACQUIRE) != 0;
         waited_ms += step_ms) {
        if (waited_ms >= timeout_ms) {
            return -1;
        }
        (void)poll(nullptr, 0, step_ms);
    }
    return 0;
}

static int32_t connect_to_server(struct worker *worker)
{
    if (worker->is_https != 0) {
        worker->tls = pelkin_create_ssl(worker->context);
        if (worker->tls == nullptr) {
            PELKIN_LOG_AS(WORKER, ERROR, "create ssl fail.");
            return -1;
        }
    }
    return pelkin_open_connection(WORKER, &worker->sock, worker->tls, worker->host,
                                  worker->is_https);
}

// The text that goes out with the request takes the place of the task's data; the data as it
// arrived stays in the copy. Of most requests that text is what follows the station's address, as
// far as it came and is used.
static void prepare_request_text(struct worker *worker)
{
    struct http_task *task = &worker->task;
    const size_t length = (size_t)task->dataLen;
    memcpy(worker->data_copy, task->data, length);
    memset(task->data, 0, length);
    if (task->msg_id == PELKIN_MSG_REAUTH_REQ) {
        struct reauth_attr *attrs = (struct reauth_attr *)worker->data_copy;
        pelkin_cut_reauth_attr(attrs, length);
        pelkin_build_reauth_data((char *)task->data, sizeof task->data, attrs);
    } else if (length > PELKIN_MAC_SIZE) {
        const size_t rest = length - PELKIN_MAC_SIZE;
        memcpy(task->data, worker->data_copy + PELKIN_MAC_SIZE,
               rest < PELKIN_TEXT_MAX ? rest : PELKIN_TEXT_MAX);
    }
}

static void clear_data(struct worker *worker)
{
    const size_t arrived = (size_t)worker->task.dataLen;
    const size_t composed = strlen((const char *)worker->task.data);
    memset(worker->task.data, 0, composed > arrived ? composed : arrived);
    memset(worker->data_copy, 0, arrived);
}

static void analyse(const struct worker *worker)
{
    if (pelkin_switch_is_on(&ignore_fb_token_verification_result) != 0) {
        PELKIN_LOG_AS(WORKER, DEBUG, "ignore fb token verification result.");
    } else if (worker->task.msg_id == PELKIN_MSG_REAUTH_REQ) {
        pelkin_check_reauth_resp((const struct reauth_attr *)worker->data_copy, worker->response,
                                 worker->response_length);
    } else if (worker->task.msg_id == PELKIN_MSG_FBAUTH_REQ &&
               worker->task.dataLen < PELKIN_MAC_SIZE) {
        // What did not come reads as zeros: with them it would be another station's address.
        PELKIN_LOG_AS(WORKER, ERROR, "fbauth request without a station, data length:%d",
                      worker->task.dataLen);
    } else if (worker->task.msg_id == PELKIN_MSG_FBAUTH_REQ) {
        pelkin_analysis_fbauth_resp((const struct fbauth_attr *)worker->data_copy,
                                    worker->response);
    }
}

// A failed delivery is logged where it fails; the worker goes on.
static void deliver(const struct worker *worker)
{
    const struct http_task *task = &worker->task;
    const size_t length = (size_t)worker->response_length;
    switch (task->resp_method) {
    case PELKIN_RESP_FILE:
        PELKIN_LOG_AS(WORKER, DEBUG, "Will send response to file: %s", task->file_path);
        pelkin_send_to_file(task->file_path, worker->response, length);
        break;
    case PELKIN_RESP_SOCKET:
        PELKIN_LOG_AS(WORKER, DEBUG, "Will send response back to the socket.");
        pelkin_send_answer(worker->response, length, &task->peer_addr, task->peer_addr_len);
        break;
    case PELKIN_RESP_ANALYSE:
        analyse(worker);
        break;
    default:
        break;
    }
}

static int32_t perform_task(struct worker *worker)
{
    const struct http_task *task = &worker->task;
    PELKIN_LOG_SUPERSEDED_AS(
        WORKER, "thread %s:%d received a task, current available task slots %d", worker->host,
        pelkin_port(worker->is_https), pelkin_count_task_slots(worker->sem_id));
    pelkin_print_task(task);
    // Slots count the tasks that wait in the pipe, not the one in progress.
    pelkin_return_task_slot(worker->sem_id);
    prepare_request_text(worker);
    worker->response_length = 0;
    if (_pelkin_send_recv(&worker->sock, worker->tls, task, worker->response,
                          sizeof worker->response, &worker->response_length) != 0) {
        PELKIN_LOG_AS(WORKER, ERROR, "Send/Recv http(s) failed.");
        return -1;
    }
    PELKIN_LOG_SUPERSEDED_AS(WORKER, "rcv: len[%d], buf[%s]", worker->response_length,
                             worker->response);
    deliver(worker);
    clear_data(worker);
    PELKIN_LOG_AS(WORKER, DEBUG, "thread %s:%d finished task (msg_id:%0x) processing", worker->host,
                  pelkin_port(worker->is_https), task->msg_id);
    return 0;
}

// Gives back what only a task needs: nothing of the buffers behind the first page, which holds the
// worker's own state, is read before it is written, or must be anything but zero.
static void release_memory(struct worker *worker)
{
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    if (page < sizeof *worker) {
        madvise((uint8_t *)worker + page, sizeof *worker - page, MADV_DONTNEED); // best effort
    }
    release_stack();
}

// Reads the next task. A worker that has nothing to do for a while is one of many, for hours
// perhaps.
static int32_t take_task(struct worker *worker)
{
    struct pollfd watched = {.fd = worker->read_end, .events = POLLIN, .revents = 0};
    if (poll_one(&watched, BUSY_S, 0) == 0) {
        release_memory(worker);
    }
    return pelkin_rcv_task(worker->read_end, &worker->task);
}

static void perform_tasks(struct worker *worker)
{
    int32_t rc = take_task(worker);
    for (; rc > 0; rc = take_task(worker)) {
        if (perform_task(worker) != 0) {
            return;
        }
    }
    if (rc == 0) {
        PELKIN_LOG_AS(WORKER, NOTICE,
                      "thread %s:%d will exit because write side pipe has been closed.",
                      worker->host, pelkin_port(worker->is_https));
    } else {
        PELKIN_LOG_AS(WORKER, ERROR, "thread %s:%d will exit because error occurred.", worker->host,
                      pelkin_port(worker->is_https));
    }
}

void *social_media_thread(void *start)
{
    struct worker *worker = (struct worker *)start;
    crashdump_thread_init();
    name_this_thread(worker->host);
    PELKIN_LOG_NOTICE("thread begin: %s:%d", worker->host, pelkin_port(worker->is_https));
    if (connect_to_server(worker) == 0) {
        perform_tasks(worker);
    }
    PELKIN_LOG_NOTICE("thread exit: %s:%d", worker->host, pelkin_port(worker->is_https));
    (void)close(worker->read_end);
    if (worker->sock >= 0) {
        (void)close(worker->sock);
    }
    free_worker(worker);
    crashdump_thread_exit();
    (void)__atomic_sub_fetch(&live_workers, 1, __ATOMIC_RELEASE);
    return nullptr;
}
