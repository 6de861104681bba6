#include "social/station_removal.h"

#include <string.h>

#include "core/ipc_send.h"
#include "log/field.h"
#include "log/log.h"

int32_t pelkin_del_sta_req(const uint8_t mac[PELKIN_MAC_SIZE])
{
    PELKIN_LOG_DEBUG("Send a del sta(mac:" PELKIN_MAC_FORMAT ") request message to kivren.",
                     PELKIN_MAC(mac));
    uint8_t message[sizeof(struct ipc_msg_hdr) + PELKIN_MAC_SIZE];
    memcpy(pelkin_fill_ipc_hdr(message, KIVREN_MSG_DEL_STA_REQ, PELKIN_MAC_SIZE), mac,
           PELKIN_MAC_SIZE);
    if (pelkin_send_ipc_msg(KIVREN_SOCKET_PATH, message) != 0) {
        PELKIN_LOG_ERROR("Failed to send del sta(mac:" PELKIN_MAC_FORMAT ") request to kivren.",
                         PELKIN_MAC(mac));
        return -1;
    }
    return 0;
}
