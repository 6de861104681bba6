#include "tools/request_message.h"

#include "core/http_task.h"

std::string envelop(uint32_t msg_id, std::string_view payload)
{
    const ipc_msg_hdr header = {.reserved0 = 0,
                                .src_module = 0, // none of the device's modules
                                .reserved2 = 0,
                                .msg_id = msg_id,
                                .len = (uint32_t)payload.size()};
    std::string message((const char *)&header, sizeof header);
    return message.append(payload);
}

std::string request_message(const http_request &request, std::string_view data)
{
    http_req_msg record = {};
    record.resp_method = request.resp_method;
    record.http_req_type = request.http_req_type;
    request.url.copy(record.url, sizeof record.url - 1);
    request.file_path.copy(record.file_path, sizeof record.file_path - 1);
    record.len = (uint32_t)data.size();
    std::string payload((const char *)&record, sizeof record);
    return envelop(request.msg_id, payload.append(data));
}

std::string text_data(const mac_address &mac, const std::string &text)
{
    std::string data(mac.begin(), mac.end());
    return data.append(text.c_str(), text.size() + 1);
}

static bool has_space_or_control(const std::string &text)
{
    for (const char character : text) {
        if ((unsigned char)character <= ' ' || character == 0x7F) {
            return true;
        }
    }
    return false;
}

// The daemon's own division of a URL: scheme, host up to the first slash, path.
static size_t host_length(const std::string &url)
{
    size_t start = 0;
    for (const std::string_view scheme : {"https://", "http://"}) {
        if (url.rfind(scheme, 0) == 0) {
            start = scheme.size();
            break;
        }
    }
    const size_t slash = url.find('/', start);
    return (slash == std::string::npos ? url.size() : slash) - start;
}

std::string url_fault(const std::string &url)
{
    const size_t host = host_length(url);
    if (has_space_or_control(url)) {
        return "white space or a control character in the URL; write it as %20 and the like";
    }
    if (url.size() >= PELKIN_URL_SIZE) {
        return "a URL has at most " + std::to_string(PELKIN_URL_SIZE - 1) +
               " characters; pass what follows its '?' with --data";
    }
    if (host == 0 || host >= HTTP_TASK_HOST_SIZE) {
        return "the URL's host has " + std::to_string(host) + " characters; it must have 1 to " +
               std::to_string(HTTP_TASK_HOST_SIZE - 1);
    }
    return "";
}

std::string body_fault(const std::string &text)
{
    return text.size() <= PELKIN_TEXT_MAX
               ? ""
               : "at most " + std::to_string(PELKIN_TEXT_MAX) + " bytes of data are sent, not " +
                     std::to_string(text.size());
}

std::string query_fault(const std::string &text)
{
    return has_space_or_control(text)
               ? "white space or a control character in a query; write it as %20 and the like"
               : body_fault(text);
}

std::string file_path_fault(const std::string &path)
{
    const size_t longest = HTTP_TASK_FILE_PATH_SIZE - 1;
    if (path.empty()) {
        return "the file's name is empty";
    }
    return path.size() <= longest
               ? ""
               : "the file's absolute name has " + std::to_string(path.size()) +
                     " characters; at most " + std::to_string(longest) + " are used";
}

std::string request_id_fault(uint32_t msg_id)
{
    switch (msg_id) {
    case KIVREN_MSG_DEL_STA_RESP:
        return "this id is a reply of the station manager, which pelkin drops";
    case PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ:
        return "this id is no HTTP request; use 'pelkinctl check-follow'";
    default:
        return "";
    }
}
