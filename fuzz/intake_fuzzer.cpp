// Datagrams into the intake, as the main loop feeds it. One input is a clock (16 bits, minutes) and
// up to 16 datagrams: what happens with it (8 bits, see below), minutes that pass before it (8
// bits), the sender's address (length in 8 bits, bytes), the datagram (length in 16 bits, bytes).
// No thread runs: the harness takes the tasks off the pipes itself.
#include <algorithm>
#include <limits.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/daemon/intake.h"
#include "core/switches.h"
#include "fuzz/harness.h"
#include "fuzz/task_model.h"
#include "fuzz/wechat_model.h"
#include "pool/minute_clock.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "pool/worker.h"

enum happening {
    LENGTH_FITS = 1,       // the envelope is given the length that came
    SWITCH_IS_ON = 2,      // token verifications are to be ignored
    WORKERS_HAVE_GONE = 4, // all pipes have lost their read ends
    KNOWN_ID = 8,          // the id is taken from the table, by the two bits above this one
    TASKS_WAITED = 64,     // with WORKERS_HAVE_GONE: the pipes were full
};
static const uint32_t known_ids[] = {PELKIN_MSG_FBAUTH_REQ, PELKIN_MSG_REAUTH_REQ,
                                     PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, KIVREN_MSG_DEL_STA_RESP};
static const int DATAGRAMS_MAX = 16;

struct read_end {
    int32_t fd;
    int32_t sem_id;
    uint32_t is_https;
    std::string host;
};

static std::vector<read_end> workers;
static int32_t clock_min;

// In place of those that start a thread and read the clock.
int32_t pelkin_start_worker(const THREAD_RECORD *record)
{
    workers.push_back({record->pipe_fd[0], record->sem_id, record->is_https, record->host});
    return 0;
}

int32_t pelkin_cur_minute(void)
{
    return clock_min;
}

static void end_workers(void)
{
    for (const read_end &worker : workers) {
        (void)close(worker.fd);
    }
    workers.clear();
}

// No task is left room that is not written as one piece anyway.
static void fill_pipes(void)
{
    static struct http_task task;
    task.dataLen = PIPE_BUF;
    for (const THREAD_RECORD *record = pelkin_thread_list; record != nullptr;
         record = record->next) {
        while (pelkin_send_task(record->pipe_fd[1], &task) == 0) {
        }
    }
}

// All tasks that wait must be the expected one, once; null: none may.
static void take_tasks(const struct http_task *expected)
{
    static struct http_task task;
    int taken = 0;
    for (const read_end &worker : workers) {
        int unread = 0;
        for (; ioctl(worker.fd, FIONREAD, &unread) == 0 && unread > 0; taken++) {
            require(pelkin_rcv_task(worker.fd, &task) > 0, "a task is whole");
            require(expected != nullptr && task.dataLen == expected->dataLen &&
                        memcmp(&task, expected, HTTP_TASK_FIXED_SIZE + (size_t)task.dataLen) == 0,
                    "the task");
            require(worker.host == task.host && worker.is_https == task.is_https,
                    "the task's worker serves its server");
            const int32_t free_slots = pelkin_count_task_slots(worker.sem_id);
            require(free_slots == PELKIN_TASK_SLOTS || free_slots == PELKIN_TASK_SLOTS - 1,
                    "a task takes one slot, or none of a fresh worker");
            // As a worker does; what a fresh one's first task gave too much is taken again.
            pelkin_return_task_slot(worker.sem_id);
            if (free_slots == PELKIN_TASK_SLOTS) {
                (void)pelkin_take_task_slot(worker.sem_id);
            }
        }
    }
    require(taken == (expected != nullptr ? 1 : 0), "one task a request that is handed over");
}

static bool is_http_request(uint32_t id)
{
    const bool ignored =
        ignore_fb_token_verification != 0 && (id == 0x15000002u || id == 0x15000004u);
    return id != 0x03000003u && id != 0x15000005u && !ignored;
}

static void feed(const std::string &datagram, const struct sender *sender, wechat_model *model)
{
    static uint8_t buffer[PELKIN_MSG_MAX] __attribute__((aligned(8)));
    static const uint8_t zeros[sizeof buffer] = {};
    static struct http_task expected;
    struct ipc_msg_hdr header = {};
    memcpy(&header, datagram.data(), std::min(datagram.size(), sizeof header));
    const bool fits = datagram.size() == sizeof header + (uint64_t)header.len;
    const std::string payload = fits ? datagram.substr(sizeof header) : "";

    memcpy(buffer, datagram.data(), datagram.size());
    require((pelkin_rcv_ipc_msg(buffer, (int32_t)datagram.size(), &sender->address,
                                sender->length) == 0) == fits,
            "the size rule");
    require(memcmp(buffer + datagram.size(), zeros, sizeof buffer - datagram.size()) == 0,
            "the buffer stays zero behind the datagram");
    memset(buffer, 0, datagram.size());

    const bool has_task = fits && is_http_request(header.msg_id) &&
                          model_task(header.msg_id, payload, sender, &expected);
    take_tasks(has_task ? &expected : nullptr);
    if (fits && header.msg_id == 0x15000005u) {
        wechat_model_add(model, payload, clock_min);
    }
    require(wechat_registry_now() == *model, "the registry of WeChat clients");
    pelkin_release_idle_threads(&pelkin_thread_list);
}

static void feed_next(struct input *input, wechat_model *model)
{
    const uint8_t happens = take_byte(input);
    clock_min += take_byte(input);
    struct sender sender = {};
    const std::string address =
        take_bytes(input, std::min<size_t>(take_byte(input), sizeof sender.address));
    memcpy(&sender.address, address.data(), address.size());
    sender.length = (socklen_t)address.size();

    std::string datagram = take_bytes(input, std::min<size_t>(take_word(input), PELKIN_MSG_MAX));
    if (datagram.empty()) {
        return; // the main loop leaves these out
    }
    const auto length = (uint32_t)(datagram.size() - sizeof(struct ipc_msg_hdr));
    if (datagram.size() >= sizeof(struct ipc_msg_hdr)) {
        if ((happens & LENGTH_FITS) != 0) {
            memcpy(&datagram[offsetof(struct ipc_msg_hdr, len)], &length, sizeof length);
        }
        if ((happens & KNOWN_ID) != 0) {
            memcpy(&datagram[offsetof(struct ipc_msg_hdr, msg_id)], &known_ids[happens >> 4 & 3],
                   sizeof *known_ids);
        }
    }
    ignore_fb_token_verification = (happens & SWITCH_IS_ON) != 0 ? 1 : 0;
    if ((happens & WORKERS_HAVE_GONE) != 0) {
        if ((happens & TASKS_WAITED) != 0) {
            fill_pipes();
        }
        end_workers();
    }
    feed(datagram, &sender, model);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct input input = {data, size};
    wechat_model model;
    clock_min = take_word(&input);
    for (int i = 0; i < DATAGRAMS_MAX && input.size > 0; i++) {
        feed_next(&input, &model);
    }
    wechat_take_out(&model, clock_min);
    (void)pelkin_release_all_threads(&pelkin_thread_list);
    end_workers();
    return 0;
}
