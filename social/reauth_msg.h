/*
 * The records of the batch token re-verification, laid out as they cross the sockets; integers are
 * in host byte order. A batch comes as the data of a PELKIN_MSG_REAUTH_REQ, its report leaves as
 * the payload of a PELKIN_MSG_REAUTH_RESP.
 */
#ifndef PELKIN_SOCIAL_REAUTH_MSG_H
#define PELKIN_SOCIAL_REAUTH_MSG_H

#include <stdint.h>

#include "core/ipc_msg.h"
#include "core/wire_assert.h"

#ifdef __cplusplus
extern "C" {
#endif

#define REAUTH_TEXT_SIZE 129
#define REAUTH_SECRET_SIZE 129
#define REAUTH_TOKEN_SIZE 65

/* One station of a batch. */
struct reauth_sta {
    char token[REAUTH_TOKEN_SIZE]; /* at most 64 characters and their NUL */
    uint8_t mac[PELKIN_MAC_SIZE];
    uint8_t padding; /* zero */
    uint32_t incoming;
    uint32_t outgoing;
};
WIRE_OFFSET(struct reauth_sta, mac, 65);
WIRE_OFFSET(struct reauth_sta, padding, 71);
WIRE_OFFSET(struct reauth_sta, incoming, 72);
WIRE_OFFSET(struct reauth_sta, outgoing, 76);
WIRE_SIZE(struct reauth_sta, 80);

/* The stations for which a request message has room behind the head of the batch. */
#define REAUTH_STA_MAX 759

/*
 * A batch. It arrives with as many entries as its sender put in; its reader must have room for the
 * first one even when `sta_num` is below 1. `sta_num` may say more than came: it is compared with
 * the datagram's size before it is used.
 */
struct reauth_attr {
    uint16_t reauth_tag;             /* the requester's own, returned unchanged */
    char text[REAUTH_TEXT_SIZE];     /* the requester's own, not read */
    char secret[REAUTH_SECRET_SIZE]; /* at most 128 characters and their NUL */
    int32_t sta_num;
    struct reauth_sta sta[REAUTH_STA_MAX];
};
WIRE_OFFSET(struct reauth_attr, text, 2);
WIRE_OFFSET(struct reauth_attr, secret, 131);
WIRE_OFFSET(struct reauth_attr, sta_num, 260);
WIRE_OFFSET(struct reauth_attr, sta, 264);
WIRE_ASSERT_(sizeof(struct ipc_msg_hdr) + sizeof(struct http_req_msg) +
                         sizeof(struct reauth_attr) <=
                     PELKIN_MSG_MAX &&
                 sizeof(struct ipc_msg_hdr) + sizeof(struct http_req_msg) +
                         sizeof(struct reauth_attr) + sizeof(struct reauth_sta) >
                     PELKIN_MSG_MAX,
             "a request message holds exactly REAUTH_STA_MAX stations");

/* One station of a report. */
struct reauth_resp_sta {
    int32_t is_valid; /* 1: the token still holds; 0: it does not */
    uint8_t mac[PELKIN_MAC_SIZE];
    uint8_t padding[2]; /* zero */
};
WIRE_OFFSET(struct reauth_resp_sta, mac, 4);
WIRE_OFFSET(struct reauth_resp_sta, padding, 10);
WIRE_SIZE(struct reauth_resp_sta, 12);

/* The stations for which one message has room. */
#define REAUTH_RESP_STA_MAX 5118

/* A report. It is sent as far as its `sta_num` entries reach. */
struct reauth_resp {
    uint16_t reauth_tag;
    uint8_t padding[2]; /* zero */
    int32_t sta_num;    /* 0 to REAUTH_RESP_STA_MAX */
    struct reauth_resp_sta sta[REAUTH_RESP_STA_MAX];
};
WIRE_OFFSET(struct reauth_resp, sta_num, 4);
WIRE_OFFSET(struct reauth_resp, sta, 8);
WIRE_ASSERT_(sizeof(struct ipc_msg_hdr) + sizeof(struct reauth_resp) <= PELKIN_MSG_MAX &&
                 sizeof(struct ipc_msg_hdr) + sizeof(struct reauth_resp) +
                         sizeof(struct reauth_resp_sta) >
                     PELKIN_MSG_MAX,
             "a message holds exactly REAUTH_RESP_STA_MAX stations");

#ifdef __cplusplus
}
#endif
#endif
