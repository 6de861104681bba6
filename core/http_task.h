/*
 * The task record: one HTTP request on its way from the main thread to a worker. It crosses the
 * task pipe as its fixed part and the first `dataLen` bytes of its data, in memory layout.
 */
#ifndef PELKIN_CORE_HTTP_TASK_H
#define PELKIN_CORE_HTTP_TASK_H

#include <stdint.h>
#include <sys/un.h>

#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HTTP_TASK_FIXED_SIZE 1430
#define HTTP_TASK_DATA_MAX 61440
#define HTTP_TASK_FILE_PATH_SIZE 142
#define HTTP_TASK_HOST_SIZE 128
#define HTTP_TASK_PATH_SIZE 1024

struct http_task {
    struct sockaddr_un peer_addr; /* the requester, as the receive call reported it */
    uint16_t reserved;
    uint32_t peer_addr_len;
    uint32_t is_https; /* 1: TLS to port 443; 0: plain TCP to port 80 */
    uint32_t msg_id;
    int32_t dataLen; /* valid bytes in `data`, 0 to HTTP_TASK_DATA_MAX */
    uint32_t http_req_type;
    uint32_t resp_method;
    char file_path[HTTP_TASK_FILE_PATH_SIZE];
    char host[HTTP_TASK_HOST_SIZE]; /* a port suffix stays part of it */
    char path[HTTP_TASK_PATH_SIZE];
    uint8_t data[HTTP_TASK_DATA_MAX];
    /* Not carried: keeps a NUL behind data that fills its area, which is read as text. */
    uint8_t data_end[2];
};
WIRE_OFFSET(struct http_task, peer_addr_len, 112);
WIRE_OFFSET(struct http_task, is_https, 116);
WIRE_OFFSET(struct http_task, msg_id, 120);
WIRE_OFFSET(struct http_task, dataLen, 124);
WIRE_OFFSET(struct http_task, http_req_type, 128);
WIRE_OFFSET(struct http_task, resp_method, 132);
WIRE_OFFSET(struct http_task, file_path, 136);
WIRE_OFFSET(struct http_task, host, 278);
WIRE_OFFSET(struct http_task, path, 406);
WIRE_OFFSET(struct http_task, data, HTTP_TASK_FIXED_SIZE);
WIRE_OFFSET(struct http_task, data_end, HTTP_TASK_FIXED_SIZE + HTTP_TASK_DATA_MAX);
WIRE_ASSERT_(sizeof(struct sockaddr_un) == 110, "the address field is 110 bytes wide");

/* Logs the task at debug level. A null task logs nothing. Any thread. */
void pelkin_print_task(const struct http_task *task);

/* The port that goes with a scheme flag: 443 or 80. It is never stored. */
static inline uint16_t pelkin_port(uint32_t is_https)
{
    return is_https != 0 ? 443 : 80;
}

#ifdef __cplusplus
}
#endif
#endif
