#include "fuzz/task_model.h"

#include <algorithm>
#include <ctype.h>
#include <string.h>

#include "fuzz/harness.h"
#include "tests/support/messages.h"

// "scheme://host/path rest": the scheme may be missing, the path and the rest too.
static bool split_url(std::string url, struct http_task *task)
{
    for (const std::string scheme : {"https://", "http://"}) {
        if (url.compare(0, scheme.size(), scheme) == 0) {
            task->is_https = scheme == "https://" ? 1 : 0;
            url.erase(0, scheme.size());
            break;
        }
    }
    const std::string host = url.substr(0, url.find('/'));
    std::string path = url.substr(host.size());
    path = path.empty() ? "/" : path.substr(0, path.find_first_of(" \t\n\v\f\r"));
    const bool is_name = std::all_of(host.begin(), host.end(), [](char byte) {
        return isalnum((unsigned char)byte) != 0 || strchr("-._:", byte) != nullptr;
    });
    if (host.empty() || host.size() > 127 || !is_name) {
        return false;
    }
    memcpy(task->host, host.data(), host.size());
    memcpy(task->path, path.data(), path.size());
    return true;
}

bool model_task(uint32_t msg_id, const std::string &request, const struct sender *sender,
                struct http_task *task)
{
    // What of the record did not come reads as zero.
    struct http_req_msg fields = {};
    memcpy(&fields, request.data(), std::min(request.size(), sizeof fields));
    *task = {};
    task->peer_addr = sender->address;
    task->peer_addr_len = sender->length;
    task->msg_id = msg_id;
    task->http_req_type = fields.http_req_type;
    task->resp_method = fields.resp_method;
    const std::string file = text_of_field(fields.file_path, 141);
    memcpy(task->file_path, file.data(), file.size());
    const size_t came = request.size() > sizeof fields ? request.size() - sizeof fields : 0;
    const size_t length = std::min({(size_t)fields.len, came, (size_t)HTTP_TASK_DATA_MAX});
    task->dataLen = (int32_t)length;
    if (length > 0) {
        memcpy(task->data, request.data() + sizeof fields, length);
    }
    return split_url(text_of_field(fields.url, sizeof fields.url), task);
}

std::string model_request_text(const struct http_task *task)
{
    return support::request_text(task->http_req_type == PELKIN_HTTP_POST, task->host, task->path,
                                 text_of_field((const char *)task->data, sizeof task->data));
}
