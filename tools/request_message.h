/* The datagrams that pelkinctl sends, built from the daemon's own layouts. */
#ifndef PELKIN_TOOLS_REQUEST_MESSAGE_H
#define PELKIN_TOOLS_REQUEST_MESSAGE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "core/ipc_msg.h"
#include "tools/text_fields.h"

/* An id without a meaning of its own: its answer is only delivered. */
#define PELKINCTL_MSG_ID 0x15000001u

/* An HTTP request to the daemon; the names are those of http_req_msg. */
struct http_request {
    std::string url;
    uint32_t msg_id = PELKINCTL_MSG_ID;
    uint32_t resp_method = PELKIN_RESP_SOCKET;
    uint32_t http_req_type = 0;
    std::string file_path;
};

/* A message of any id: the envelope and `payload`. */
std::string envelop(uint32_t msg_id, std::string_view payload);

/* The message of a request, with `data` behind it. The texts have been checked. */
std::string request_message(const http_request &request, std::string_view data);

/* The data of all ids but PELKIN_MSG_REAUTH_REQ: station, text and NUL. */
std::string text_data(const mac_address &mac, const std::string &text);

/* HOST:PORT of a URL without a fault, as the daemon's messages have it. */
std::string server_of(const std::string &url);

/*
 * What the daemon would refuse, cut or send on as something else, in words; "" when it is fine. A
 * query goes into the request line as it is, so it must not have white space.
 */
std::string url_fault(const std::string &url); /* one that no server can be asked for as well */
std::string query_fault(const std::string &text);
std::string body_fault(const std::string &text);
std::string file_path_fault(const std::string &path);
std::string request_id_fault(uint32_t msg_id);

#endif
