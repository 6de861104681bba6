/* Splitting a request's URL. Any thread. */
#ifndef PELKIN_CORE_URL_H
#define PELKIN_CORE_URL_H

#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a URL is made of; the texts are NUL-terminated. */
struct url_parts {
    uint32_t is_https;
    char host[HTTP_TASK_HOST_SIZE]; /* a port suffix stays part of it */
    char path[HTTP_TASK_PATH_SIZE]; /* from the first "/" up to white space; "/" without one */
};

/*
 * Splits `url`, which is read no further than PELKIN_URL_SIZE: "https://" HOST PATH, "http://" HOST
 * PATH, or HOST PATH for plain HTTP; the scheme in small letters only. 0, or -1 when there is no
 * host or one of more than 127 characters: cut, it would be another server.
 */
int32_t pelkin_split_url(const char *url, struct url_parts *parts);

/*
 * The place of the first byte of `host` that no host name or dotted address has (RFC 1123, 2.1,
 * with the underscore that is met in practice, and the colon of a port suffix), or -1. A name with
 * white space or a line break in it would write header lines of its own into the request.
 */
int32_t pelkin_find_bad_host_byte(const char *host);

#ifdef __cplusplus
}
#endif
#endif
