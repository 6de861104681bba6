/* The text of an HTTP/1.0 request (RFC 1945) for a task. */
#ifndef PELKIN_HTTP_REQUEST_H
#define PELKIN_HTTP_REQUEST_H

#include <stdint.h>

#include "core/http_task.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Room for any request: the largest data, the templates' own text (under 256 bytes), host and path.
 */
#define PELKIN_HTTP_REQ_MAX (HTTP_TASK_DATA_MAX + HTTP_TASK_HOST_SIZE + HTTP_TASK_PATH_SIZE + 256)

/*
 * Composes the task's request into `output` (`size` bytes, cut there, NUL-terminated) and stores
 * the length of the whole text. The task's data is read as NUL-terminated text and goes out
 * unchanged: as the body of a POST, as the query of a GET. Returns 0. Any thread.
 */
int32_t pelkin_build_http_req(const struct http_task *task, char *output, int32_t size,
                              int32_t *length);

/*
 * 1 when no server, however lenient, can take the task's request for more than one: whatever of it
 * stands in the request line or the head is printable ASCII. Otherwise 0: it holds a byte that one
 * or the other takes for a line's end. Any thread.
 */
int32_t pelkin_is_one_http_req(const struct http_task *task);

#ifdef __cplusplus
}
#endif
#endif
