/* The request to check later whether a client follows a WeChat official account. */
#ifndef PELKIN_WECHAT_WECHAT_MSG_H
#define PELKIN_WECHAT_WECHAT_MSG_H

#include <stdint.h>

#include "core/ipc_msg.h"
#include "core/wire_assert.h"

#ifdef __cplusplus
extern "C" {
#endif

#define WECHAT_OPENID_SIZE 32     /* 31 characters and the NUL */
#define WECHAT_APPID_SIZE 129     /* 128 characters and the NUL */
#define WECHAT_APPSECRET_SIZE 129 /* 128 characters and the NUL */

/*
 * The payload of PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ. A text that fills its field without a NUL is
 * cut by its last byte; bytes behind this record are ignored, a shorter payload is refused.
 */
struct wechat_check_follow_req {
    uint8_t mac[PELKIN_MAC_SIZE];
    char openid[WECHAT_OPENID_SIZE]; /* the client's user id with this official account */
    char appid[WECHAT_APPID_SIZE];   /* the official account */
    char appsecret[WECHAT_APPSECRET_SIZE];
    int32_t delay; /* minutes from arrival to the check; 0 or less: at the next opportunity */
};
WIRE_OFFSET(struct wechat_check_follow_req, mac, 0);
WIRE_OFFSET(struct wechat_check_follow_req, openid, 6);
WIRE_OFFSET(struct wechat_check_follow_req, appid, 38);
WIRE_OFFSET(struct wechat_check_follow_req, appsecret, 167);
WIRE_OFFSET(struct wechat_check_follow_req, delay, 296);
WIRE_SIZE(struct wechat_check_follow_req, 300);

#ifdef __cplusplus
}
#endif
#endif
