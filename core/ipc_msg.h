/*
 * The messages that the device's daemons exchange with this one over Unix-domain datagram sockets:
 * the envelope, the message ids and the HTTP request. Every message is one datagram; integers are
 * in host byte order, all parties being on one device. Records are laid out so that their C layout
 * is the wire layout.
 */
#ifndef PELKIN_CORE_IPC_MSG_H
#define PELKIN_CORE_IPC_MSG_H

#include <stddef.h>
#include <stdint.h>

#include "core/wire_assert.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PELKIN_SOCKET_PATH "/var/run/vok/pelkin.socket"
#define KIVREN_SOCKET_PATH "/var/run/vok/kivren.socket"
#define PELKIN_MONITOR_SOCKET_PATH "/tmp/pelkin_mon.socket" /* liveness probes */

#define PELKIN_MODULE_ID 21 /* 0x15, the high byte of this daemon's message ids */

/* The largest datagram, envelope included, and the size of the buffers that hold a body. Bytes. */
#define PELKIN_MSG_MAX 61440

/* Message ids: the high byte names the module in whose message set the message lies. */
#define PELKIN_MSG_REAUTH_REQ 0x15000002u              /* http_req_msg */
#define PELKIN_MSG_REAUTH_RESP 0x15000003u             /* to the station manager */
#define PELKIN_MSG_FBAUTH_REQ 0x15000004u              /* http_req_msg */
#define PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ 0x15000005u /* WeChat check-follow request */
#define KIVREN_MSG_DEL_STA_RESP 0x03000003u            /* read and dropped */
#define KIVREN_MSG_DEL_STA_REQ 0x0300000Bu             /* to the station manager */
#define VOKMON_MSG_PROBE 0x08000001u                   /* to the monitor socket */
#define VOKMON_MSG_PROBE_REPLY 0x08000002u             /* from the monitor socket */

/* The envelope. A datagram is well formed when its size is exactly 12 + `len`. */
struct ipc_msg_hdr {
    uint8_t reserved0; /* written as 0, not read */
    uint8_t src_module;
    uint16_t reserved2; /* written as 0, not read */
    uint32_t msg_id;
    uint32_t len; /* bytes of payload behind this header */
};
WIRE_OFFSET(struct ipc_msg_hdr, src_module, 1);
WIRE_OFFSET(struct ipc_msg_hdr, msg_id, 4);
WIRE_OFFSET(struct ipc_msg_hdr, len, 8);
WIRE_SIZE(struct ipc_msg_hdr, 12);

/* What becomes of an answer: `resp_method` of a request. Any other value drops it. */
#define PELKIN_RESP_FILE 1u    /* written to `file_path` */
#define PELKIN_RESP_SOCKET 2u  /* sent to the requester's socket, the body alone, no envelope */
#define PELKIN_RESP_ANALYSE 3u /* analysed by the daemon, by message id */

#define PELKIN_HTTP_POST 1u /* `http_req_type`; any other value is a GET */

#define PELKIN_URL_SIZE 256
#define PELKIN_REQ_FILE_PATH_SIZE 144 /* of which at most 141 characters are used */

/*
 * The payload of every id that is handled as an HTTP request; `len` bytes of data follow it. For
 * all ids but PELKIN_MSG_REAUTH_REQ the data is a 6-byte station address and the request text,
 * NUL-terminated, of which at most PELKIN_TEXT_MAX bytes are used.
 */
struct http_req_msg {
    uint32_t resp_method;
    uint32_t http_req_type;
    char url[PELKIN_URL_SIZE];                 /* NUL-terminated */
    char file_path[PELKIN_REQ_FILE_PATH_SIZE]; /* NUL-terminated */
    uint32_t len;                              /* bytes of data behind this record */
};
WIRE_OFFSET(struct http_req_msg, http_req_type, 4);
WIRE_OFFSET(struct http_req_msg, url, 8);
WIRE_OFFSET(struct http_req_msg, file_path, 264);
WIRE_OFFSET(struct http_req_msg, len, 408);
WIRE_SIZE(struct http_req_msg, 412);

#define PELKIN_MAC_SIZE 6
#define PELKIN_TEXT_MAX 1024

#ifdef __cplusplus
}
#endif
#endif
