#include "core/http_task.h"

#include "log/log.h"

void pelkin_print_task(const struct http_task *task)
{
    if (task == nullptr) {
        return;
    }
    PELKIN_LOG_DEBUG_SUPERSEDED(
        "task: HTTP HEAD: %s %s%s%s file_path=%s resp_method=%d, msg_id:%0x",
        task->http_req_type == PELKIN_HTTP_POST ? "POST" : "GET",
        task->is_https != 0 ? "https://" : "http://", task->host, task->path, task->file_path,
        (int)task->resp_method, task->msg_id);
}
