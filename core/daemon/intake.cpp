#include "core/daemon/intake.h"

#include <errno.h>
#include <string.h>

#include "core/switches.h"
#include "log/field.h"
#include "log/log.h"
#include "pool/minute_clock.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "pool/worker_registry.h"
#include "wechat/registry.h"

static const size_t FILE_PATH_LONGEST = HTTP_TASK_FILE_PATH_SIZE - 1;

void pelkin_print_http_req_msg(const struct http_req_msg *request)
{
    if (request == nullptr) {
        return;
    }
    PELKIN_LOG_DEBUG_SUPERSEDED("HTTP request message: resp_method[%d] http_req_type[%d] url[%.*s] "
                                "file_path[%.*s] len[%d]",
                                (int)request->resp_method, (int)request->http_req_type,
                                PELKIN_FIELD(request->url), PELKIN_FIELD(request->file_path),
                                (int)request->len);
}

static bool starts_with(const char *text, size_t length, const char *prefix, size_t prefix_length)
{
    return length >= prefix_length && memcmp(text, prefix, prefix_length) == 0;
}

static size_t length_up_to_space(const char *text, size_t length)
{
    size_t used = 0;
    while (used < length && strchr(" \t\n\v\f\r", text[used]) == nullptr) {
        used++;
    }
    return used;
}

// Splits the URL into scheme, host and path. 0, or -1 when there is no host or it is too long: cut,
// it would be another server.
static int32_t split_url(const char url[PELKIN_URL_SIZE], struct http_task *task)
{
    static const char https[] = "https://";
    static const char http[] = "http://";
    size_t length = strnlen(url, PELKIN_URL_SIZE);
    size_t skipped = 0;
    if (starts_with(url, length, https, sizeof https - 1)) {
        task->is_https = 1;
        skipped = sizeof https - 1;
    } else if (starts_with(url, length, http, sizeof http - 1)) {
        skipped = sizeof http - 1;
    }
    url += skipped;
    length -= skipped;

    const char *slash = (const char *)memchr(url, '/', length);
    const size_t host_length = slash != nullptr ? (size_t)(slash - url) : length;
    if (host_length == 0 || host_length >= sizeof task->host) {
        return -1;
    }
    memcpy(task->host, url, host_length);
    if (slash == nullptr) {
        task->path[0] = '/';
    } else {
        static_assert(PELKIN_URL_SIZE < HTTP_TASK_PATH_SIZE, "any URL's path fits");
        memcpy(task->path, slash, length_up_to_space(slash, length - host_length));
    }
    return 0;
}

int32_t pelkin_fill_http_task(uint32_t msg_id, struct http_task *task,
                              const struct http_req_msg *request,
                              const struct sockaddr_un *sender_address,
                              socklen_t sender_address_length)
{
    if (task == nullptr || request == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    task->peer_addr = *sender_address;
    task->peer_addr_len = sender_address_length;
    task->http_req_type = request->http_req_type;
    task->resp_method = request->resp_method;
    memcpy(task->file_path, request->file_path, strnlen(request->file_path, FILE_PATH_LONGEST));
    if (split_url(request->url, task) != 0) {
        return -1;
    }
    task->dataLen =
        (int32_t)(request->len < HTTP_TASK_DATA_MAX ? request->len : HTTP_TASK_DATA_MAX);
    memcpy(task->data, request + 1, (size_t)task->dataLen);
    task->msg_id = msg_id;
    return 0;
}

// Hands the task to a worker of its server, which is started when there is none with a free slot. A
// worker found that turns out to have ended gives way to the next one; a fresh one gets one try.
static int32_t hand_over(const struct http_task *task)
{
    bool is_new = false;
    for (;;) {
        THREAD_RECORD *record = pelkin_find_a_thread(task->is_https, task->host);
        const bool slot_taken = record != nullptr;
        if (record == nullptr) {
            is_new = true;
            record = pelkin_create_a_thread(task->is_https, task->host);
        }
        if (record == nullptr) {
            return -1;
        }
        const int32_t error = pelkin_send_task(record->pipe_fd[1], task);
        if (error == 0) {
            PELKIN_LOG_DEBUG("send task to thread OK. msg_id:%0x", task->msg_id);
            record->last_used_time = pelkin_cur_minute();
            return 0;
        }
        if (error == EPIPE && !is_new) {
            PELKIN_LOG_ERROR("failed to send task to thread. msg_id:%0x, thread should exit "
                             "already, del it then retry.",
                             task->msg_id);
            (void)pelkin_del_one_thread_record(record, &pelkin_thread_list);
            continue;
        }
        if (error == EPIPE) {
            (void)pelkin_del_one_thread_record(record, &pelkin_thread_list);
        } else if (slot_taken) {
            pelkin_return_task_slot(record->sem_id);
        }
        PELKIN_LOG_ERROR("failed to send task to thread. msg_id:%0x", task->msg_id);
        return 0;
    }
}

int32_t social_media_req_msg_proc(const void *message, const struct sockaddr_un *sender_address,
                                  socklen_t sender_address_length)
{
    if (message == nullptr || sender_address == nullptr) {
        PELKIN_LOG_ERROR("attribute should NOT be NULL.");
        return -1;
    }
    const struct ipc_msg_hdr *header = (const struct ipc_msg_hdr *)message;
    const struct http_req_msg *request = (const struct http_req_msg *)(header + 1);
    pelkin_print_http_req_msg(request);
    if (pelkin_switch_is_on(&ignore_fb_token_verification) != 0 &&
        (header->msg_id == PELKIN_MSG_FBAUTH_REQ || header->msg_id == PELKIN_MSG_REAUTH_REQ)) {
        PELKIN_LOG_DEBUG("ignore fb token verification.");
        return 0;
    }

    // One task at a time, on one thread. Only what the last one wrote needs clearing.
    static struct http_task task;
    memset(&task, 0, HTTP_TASK_FIXED_SIZE + (size_t)task.dataLen);
    if (pelkin_fill_http_task(header->msg_id, &task, request, sender_address,
                              sender_address_length) != 0) {
        PELKIN_LOG_ERROR("fill http task failed.");
        return -1;
    }
    if (task.host[0] == '\0') {
        PELKIN_LOG_ERROR("host should NOT be NULL. pelkin_msg->url:%.*s",
                         PELKIN_FIELD(request->url));
        return -1;
    }
    pelkin_print_task(&task);
    return hand_over(&task);
}

// A request that promises more data than came has as much as came.
static void cut_to_what_came(struct ipc_msg_hdr *header)
{
    struct http_req_msg *request = (struct http_req_msg *)(header + 1);
    const uint32_t came =
        header->len > sizeof *request ? header->len - (uint32_t)sizeof *request : 0;
    if (request->len > came) {
        request->len = came;
    }
}

int32_t pelkin_rcv_ipc_msg(void *message, int32_t received_length,
                           const struct sockaddr_un *sender_address,
                           socklen_t sender_address_length)
{
    struct ipc_msg_hdr *header = (struct ipc_msg_hdr *)message;
    // In 64 bits: a length near the top of its range must not wrap into a small one.
    if ((uint64_t)header->len + sizeof *header != (uint64_t)received_length) {
        PELKIN_LOG_INFO("Received length mismatched, expected:%d, received:%d",
                        (int)(header->len + sizeof *header), received_length);
        return -1;
    }
    PELKIN_LOG_DEBUG_SUPERSEDED("Received msg from module %d, len = %u, id = %0#10x",
                                header->src_module, header->len, header->msg_id);
    switch (header->msg_id) {
    case KIVREN_MSG_DEL_STA_RESP:
        PELKIN_LOG_DEBUG("this should be reply of del sta request. no need to process it");
        break;
    case PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ:
        (void)wechat_req_msg_proc(message, sender_address, sender_address_length);
        break;
    default:
        cut_to_what_came(header);
        (void)social_media_req_msg_proc(message, sender_address, sender_address_length);
        break;
    }
    return 0;
}
