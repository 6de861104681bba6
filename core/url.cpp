#include "core/url.h"

#include <string.h>

static bool starts_with(const char *text, size_t length, const char *prefix)
{
    const size_t prefix_length = strlen(prefix);
    return length >= prefix_length && memcmp(text, prefix, prefix_length) == 0;
}

static size_t length_up_to_space(const char *text, size_t length)
{
    size_t used = 0;
    while (used < length && strchr(" \t\n\v\f\r", text[used]) == nullptr) {
        used++;
    }
    return used;
}

int32_t pelkin_split_url(const char *url, struct url_parts *parts)
{
    static const char https[] = "https://";
    static const char http[] = "http://";
    *parts = {};
    size_t length = strnlen(url, PELKIN_URL_SIZE);
    size_t skipped = 0;
    if (starts_with(url, length, https)) {
        parts->is_https = 1;
        skipped = sizeof https - 1;
    } else if (starts_with(url, length, http)) {
        skipped = sizeof http - 1;
    }
    url += skipped;
    length -= skipped;

    const char *slash = (const char *)memchr(url, '/', length);
    const size_t host_length = slash != nullptr ? (size_t)(slash - url) : length;
    if (host_length == 0 || host_length >= sizeof parts->host) {
        return -1;
    }
    memcpy(parts->host, url, host_length);
    if (slash == nullptr) {
        parts->path[0] = '/';
    } else {
        static_assert(PELKIN_URL_SIZE < HTTP_TASK_PATH_SIZE, "any URL's path fits");
        memcpy(parts->path, slash, length_up_to_space(slash, length - host_length));
    }
    return 0;
}

int32_t pelkin_find_bad_host_byte(const char *host)
{
    static const char of_names[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._:";
    const size_t good = strspn(host, of_names);
    return host[good] == '\0' ? -1 : (int32_t)good;
}
