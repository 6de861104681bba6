#include "social/reauth_report.h"

#include <string.h>

#include "core/ipc_send.h"
#include "log/field.h"
#include "log/log.h"

int32_t pelkin_print_reauth_resp_msg(const struct reauth_resp *resp)
{
    if (resp == nullptr) {
        PELKIN_LOG_ERROR("reauth_resp should NOT be NULL.");
        return -1;
    }
    PELKIN_LOG_DEBUG("reauth_resp: sta_num[%d]", resp->sta_num);
    for (int32_t i = 0; i < resp->sta_num; i++) {
        const uint8_t *mac = resp->sta[i].mac;
        PELKIN_LOG_DEBUG("sta: mac[" PELKIN_MAC_FORMAT "] is_valid[%d]", PELKIN_MAC(mac),
                         resp->sta[i].is_valid);
    }
    return 0;
}

int32_t pelkin_send_reauth_resp(const struct reauth_resp *resp)
{
    if (resp == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    PELKIN_LOG_DEBUG("Send a reauth response message to kivren.");
    uint8_t message[PELKIN_MSG_MAX];
    const size_t length =
        offsetof(struct reauth_resp, sta) + (size_t)resp->sta_num * sizeof resp->sta[0];
    memcpy(pelkin_fill_ipc_hdr(message, PELKIN_MSG_REAUTH_RESP, (uint32_t)length), resp, length);
    pelkin_print_reauth_resp_msg(resp);
    if (pelkin_send_ipc_msg(KIVREN_SOCKET_PATH, message) != 0) {
        PELKIN_LOG_ERROR("Failed to send request to kivren.");
        return -1;
    }
    PELKIN_LOG_ERROR("Success to send request to kivren.");
    return 0;
}
