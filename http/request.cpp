#include "http/request.h"

#include <stdio.h>
#include <string.h>

#define HTTP_VERSION "1.0"
#define HEADER_LINES                                                                               \
    "Host: %s\r\nConnection: keep-alive\r\nUser-Agent: pelkin\r\n"                                 \
    "Content-type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n\r\n"

int32_t pelkin_build_http_req(const struct http_task *task, char *output, int32_t size,
                              int32_t *length)
{
    const char *text = (const char *)task->data;
    const size_t room = (size_t)size;
    if (task->http_req_type == PELKIN_HTTP_POST) {
        *length = snprintf(output, room, "POST %s HTTP/" HTTP_VERSION "\r\n" HEADER_LINES "%s",
                           task->path, task->host, (int)strlen(text), text);
    } else if (text[0] != '\0') {
        *length = snprintf(output, room, "GET %s?%s HTTP/" HTTP_VERSION "\r\n" HEADER_LINES,
                           task->path, text, task->host, 0);
    } else {
        *length = snprintf(output, room, "GET %s HTTP/" HTTP_VERSION "\r\n" HEADER_LINES,
                           task->path, task->host, 0);
    }
    return 0;
}

static bool is_printable(const char *text)
{
    while (*text >= ' ' && *text <= '~') {
        text++;
    }
    return *text == '\0';
}

int32_t pelkin_is_one_http_req(const struct http_task *task)
{
    // A body is as long as its announced length, whatever it holds.
    const bool is_post = task->http_req_type == PELKIN_HTTP_POST;
    return is_printable(task->path) && is_printable(task->host) &&
                   (is_post || is_printable((const char *)task->data))
               ? 1
               : 0;
}
