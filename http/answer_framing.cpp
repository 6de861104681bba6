#include "http/answer_framing.h"

#include <string.h>

#include "log/log.h"
#include "platform/read_number.h"

int32_t pelkin_get_http_head_len(const char *text)
{
    if (text == nullptr) {
        PELKIN_LOG_ERROR("http_head should NOT be NULL");
        return -1;
    }
    static const char blank_line[] = "\r\n\r\n";
    const char *found = strstr(text, blank_line);
    if (found == nullptr) {
        return 0;
    }
    const int32_t length = (int32_t)(found - text) + (int32_t)sizeof blank_line - 1;
    PELKIN_LOG_DEBUG("HTTP HEAD length is %d", length);
    return length;
}

int32_t pelkin_get_http_data_len(const char *text)
{
    if (text == nullptr) {
        PELKIN_LOG_ERROR("http_head should NOT be NULL");
        return -1;
    }
    static const char key[] = "Content-Length: ";
    const char *found = strstr(text, key);
    if (found == nullptr) {
        return -1;
    }
    int32_t length = -1;
    if (read_number(found + sizeof key - 1, &length) != nullptr) {
        PELKIN_LOG_DEBUG("HTTP BODY length is %d", length);
    }
    return length;
}
