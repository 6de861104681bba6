#include "tools/request_message.h"

#include <algorithm>
#include <cctype>

#include "core/http_task.h"
#include "core/url.h"

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

// As the daemon finds them; no host when it would take none.
static url_parts parts_of(const std::string &url)
{
    url_parts parts = {};
    if (pelkin_split_url(url.c_str(), &parts) != 0) {
        parts.host[0] = '\0';
    }
    return parts;
}

std::string server_of(const std::string &url)
{
    const url_parts parts = parts_of(url);
    return std::string(parts.host) + ":" + std::to_string(pelkin_port(parts.is_https));
}

// Only the two in small letters are schemes to the daemon; it takes others for hosts.
static std::string scheme_fault(const std::string &url)
{
    const size_t end = url.find("://");
    if (end == std::string::npos || end == 0 || url.find('/') < end) {
        return "";
    }
    std::string scheme = url.substr(0, end);
    if (scheme == "http" || scheme == "https") {
        return "";
    }
    for (char &letter : scheme) {
        letter = (char)std::tolower((unsigned char)letter);
    }
    return scheme == "http" || scheme == "https"
               ? "the scheme must be in small letters; write " + scheme + url.substr(end)
               : "pelkin knows no " + scheme + "://; write http:// or https://";
}

static std::string host_fault(const std::string &host)
{
    const size_t colon = host.find(':');
    const size_t at = std::min((size_t)pelkin_find_bad_host_byte(host.c_str()), colon);
    if (at >= host.size()) {
        return "";
    }
    const std::string rest = host.substr(at);
    switch (host[at]) {
    case ':':
        return "pelkin asks port 80, or 443 with https://, and no other; leave out '" + rest + "'";
    case '?':
    case '#':
        return "no slash behind the host; write " + host.substr(0, at) + "/" + rest;
    case '@':
        return "pelkin sends no user's name; leave out '" + host.substr(0, at + 1) + "'";
    case '[':
        return "pelkin speaks IPv4 only; write a name or an address like 192.0.2.1";
    default:
        return "'" + host + "' can be no host; write letters, digits, '-', '.' and '_'";
    }
}

std::string url_fault(const std::string &url)
{
    if (has_space_or_control(url)) {
        return "white space or a control character in the URL; write it as %20 and the like";
    }
    if (url.size() >= PELKIN_URL_SIZE) {
        return "a URL has at most " + std::to_string(PELKIN_URL_SIZE - 1) +
               " characters; pass what follows its '?' with --data";
    }
    std::string scheme = scheme_fault(url);
    if (!scheme.empty()) {
        return scheme;
    }
    const std::string host = parts_of(url).host;
    return host.empty()
               ? "the URL must have a host of 1 to " + std::to_string(HTTP_TASK_HOST_SIZE - 1) +
                     " characters; write http://HOST/PATH"
               : host_fault(host);
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
