/* `pelkinctl get` and `pelkinctl post`: HTTP requests through the daemon. */
#ifndef PELKIN_TOOLS_HTTP_COMMAND_H
#define PELKIN_TOOLS_HTTP_COMMAND_H

#include <string>
#include <vector>

#include "core/ipc_msg.h"
#include "tools/request_message.h"

/* Where requests go and how long is waited. */
struct delivery {
    std::string socket = PELKIN_SOCKET_PATH;
    double timeout_s = 30;
};

struct http_command {
    std::vector<std::string> urls;
    http_request request; /* of each, but for its URL */
    mac_address mac = {};
    std::string text;
    size_t parallel = 1;
    delivery to;
};

/* As many as a client asks for at once. */
#define PARALLEL_MAX 32

/* Returns the exit status, as every command does. */
int run_http(const http_command &command);

/* Sends one message and waits for nothing but room for it. */
int hand_over(const delivery &to, const std::string &message);

#endif
