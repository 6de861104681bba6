/* The request to verify the login token of one station. */
#ifndef PELKIN_SOCIAL_FBAUTH_MSG_H
#define PELKIN_SOCIAL_FBAUTH_MSG_H

#include <stdint.h>

#include "core/ipc_msg.h"
#include "core/wire_assert.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The data of a PELKIN_MSG_FBAUTH_REQ. */
struct fbauth_attr {
    uint8_t mac[PELKIN_MAC_SIZE];
    char text[PELKIN_TEXT_MAX]; /* goes out with the request; NUL-terminated when shorter */
};
WIRE_OFFSET(struct fbauth_attr, text, 6);
WIRE_SIZE(struct fbauth_attr, 1030);

#ifdef __cplusplus
}
#endif
#endif
