/* The request to the station manager to delete a station whose login does not hold. */
#ifndef PELKIN_SOCIAL_STATION_REMOVAL_H
#define PELKIN_SOCIAL_STATION_REMOVAL_H

#include <stdint.h>

#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Sends the delete-station request for the 6-byte address `mac` to the station manager. 0, or -1
 * (logged) when it could not be sent; there is no retry, and the reply is not awaited. Any thread.
 */
int32_t pelkin_del_sta_req(const uint8_t mac[PELKIN_MAC_SIZE]);

#ifdef __cplusplus
}
#endif
#endif
