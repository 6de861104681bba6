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

static const char length_key[] = "Content-Length: ";

#ifdef PELKIN_HTTP_FRAMING_TOLERANT
// Many proxies write the fields' names in small letters.
static const char *find_length(const char *text)
{
    return strcasestr(text, length_key);
}

// 204 (No Content) and 304 (Not Modified) have none, whatever length they announce: RFC 9110, 15.
static bool has_no_body(const char *text)
{
    static const char protocol[] = "HTTP/";
    const char *status = strchr(text, ' ');
    return strncmp(text, protocol, sizeof protocol - 1) == 0 && status != nullptr &&
           (strncmp(status, " 204", 4) == 0 || strncmp(status, " 304", 4) == 0);
}
#else
static const char *find_length(const char *text)
{
    return strstr(text, length_key);
}

static bool has_no_body(const char *)
{
    return false;
}
#endif

int32_t pelkin_get_http_data_len(const char *text)
{
    if (text == nullptr) {
        PELKIN_LOG_ERROR("http_head should NOT be NULL");
        return -1;
    }
    if (has_no_body(text)) {
        return 0;
    }
    const char *found = find_length(text);
    if (found == nullptr) {
        return -1;
    }
    int32_t length = -1;
    if (read_number(found + sizeof length_key - 1, &length) != nullptr) {
        PELKIN_LOG_DEBUG("HTTP BODY length is %d", length);
    }
    return length;
}
