#include "core/daemon/intake.h"

#include <string.h>

#include "core/switches.h"
#include "core/url.h"
#include "log/log.h"
#include "pool/hand_over.h"
#include "wechat/registry.h"

static const size_t FILE_PATH_LONGEST = HTTP_TASK_FILE_PATH_SIZE - 1;

// A text field as a log line may show it: what would start a line of its own becomes a dot.
static const char *show_field(const char *field, size_t size, char shown[PELKIN_URL_SIZE + 1])
{
    const size_t length = strnlen(field, size);
    for (size_t i = 0; i < length; i++) {
        shown[i] = (uint8_t)field[i] < ' ' || field[i] == '\x7f' ? '.' : field[i];
    }
    shown[length] = '\0';
    return shown;
}

void pelkin_print_http_req_msg(const struct http_req_msg *request)
{
    if (request == nullptr || pelkin_log_printed(TU_LEVEL_DEBUG) == 0) {
        return;
    }
    char url[PELKIN_URL_SIZE + 1];
    char file_path[PELKIN_URL_SIZE + 1];
    PELKIN_LOG_DEBUG_SUPERSEDED(
        "HTTP request message: resp_method[%d] http_req_type[%d] url[%s] file_path[%s] len[%d]",
        (int)request->resp_method, (int)request->http_req_type,
        show_field(request->url, sizeof request->url, url),
        show_field(request->file_path, sizeof request->file_path, file_path), (int)request->len);
}

// The host comes from outside and names a worker, log lines and a line of the request.
static int32_t fill_server(const char *url, struct http_task *task)
{
    struct url_parts parts;
    if (pelkin_split_url(url, &parts) != 0) {
        return -1;
    }
    const int32_t bad = pelkin_find_bad_host_byte(parts.host);
    if (bad >= 0) {
        PELKIN_LOG_AS("pelkin_fill_http_task", ERROR,
                      "host refused: byte 0x%02x at %d is in no name.", (uint8_t)parts.host[bad],
                      bad);
        return -1;
    }
    task->is_https = parts.is_https;
    memcpy(task->host, parts.host, sizeof task->host);
    memcpy(task->path, parts.path, sizeof task->path);
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
    if (fill_server(request->url, task) != 0) {
        return -1;
    }
    task->dataLen =
        (int32_t)(request->len < HTTP_TASK_DATA_MAX ? request->len : HTTP_TASK_DATA_MAX);
    memcpy(task->data, request + 1, (size_t)task->dataLen);
    task->msg_id = msg_id;
    return 0;
}

// A request that promises more data than came has as much as came.
static void cut_to_what_came(const struct ipc_msg_hdr *header, struct http_req_msg *request)
{
    const uint32_t came =
        header->len > sizeof *request ? header->len - (uint32_t)sizeof *request : 0;
    if (request->len > came) {
        request->len = came;
    }
}

int32_t social_media_req_msg_proc(void *message, const struct sockaddr_un *sender_address,
                                  socklen_t sender_address_length)
{
    if (message == nullptr || sender_address == nullptr) {
        PELKIN_LOG_ERROR("attribute should NOT be NULL.");
        return -1;
    }
    struct ipc_msg_hdr *header = (struct ipc_msg_hdr *)message;
    struct http_req_msg *request = (struct http_req_msg *)(header + 1);
    pelkin_print_http_req_msg(request);
    cut_to_what_came(header, request);
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
        char url[PELKIN_URL_SIZE + 1];
        PELKIN_LOG_ERROR("host should NOT be NULL. pelkin_msg->url:%s",
                         show_field(request->url, sizeof request->url, url));
        return -1;
    }
    pelkin_print_task(&task);
    return pelkin_hand_over_task(&task);
}

// With a name that leads back here, the answers to a request could be requests for ever.
static bool is_from_ourselves(const struct sockaddr_un *sender)
{
    return sender != nullptr &&
           strncmp(sender->sun_path, PELKIN_SOCKET_PATH, sizeof sender->sun_path) == 0;
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
    if (is_from_ourselves(sender_address)) {
        PELKIN_LOG_ERROR("message with id = %0#10x from the daemon's own socket dropped.",
                         header->msg_id);
        return 0;
    }
    switch (header->msg_id) {
    case KIVREN_MSG_DEL_STA_RESP:
        PELKIN_LOG_DEBUG("this should be reply of del sta request. no need to process it");
        break;
    case PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ:
        wechat_req_msg_proc(message, sender_address, sender_address_length);
        break;
    default:
        social_media_req_msg_proc(message, sender_address, sender_address_length);
        break;
    }
    return 0;
}
