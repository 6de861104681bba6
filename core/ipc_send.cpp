#include "core/ipc_send.h"

#include <errno.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "log/log.h"
#include "platform/gate.h"
#include "platform/retry_pause.h"

int32_t pelkin_sock = -1;

// Closing keeps clear of other threads' sends, whose descriptor could be somebody else's by then.
static struct gate sends;

void pelkin_close_sock(void)
{
    gate_close(&sends);
    close(pelkin_sock);
}

void *pelkin_fill_ipc_hdr(void *buffer, uint32_t msg_id, uint32_t len)
{
    const struct ipc_msg_hdr header = {.reserved0 = 0,
                                       .src_module = PELKIN_MODULE_ID,
                                       .reserved2 = 0,
                                       .msg_id = msg_id,
                                       .len = len};
    memcpy(buffer, &header, sizeof header);
    return (uint8_t *)buffer + sizeof header;
}

int32_t pelkin_send_ipc_msg(const char *peer_path, const void *message)
{
    // The length that the device's daemons agreed on: it covers the family and 106 characters.
    static const socklen_t PEER_ADDRESS_LENGTH = 108;
    struct sockaddr_un peer = {};
    peer.sun_family = AF_UNIX;
    memcpy(peer.sun_path, peer_path, strnlen(peer_path, sizeof peer.sun_path));

    struct ipc_msg_hdr header;
    memcpy(&header, message, sizeof header);
    return pelkin_send_to_socket(pelkin_sock, message, sizeof header + header.len, &peer,
                                 PEER_ADDRESS_LENGTH);
}

socklen_t pelkin_sendable_length(socklen_t reported)
{
    return reported < sizeof(struct sockaddr_un) ? reported : sizeof(struct sockaddr_un);
}

int32_t pelkin_send_to_socket(int32_t sock, const void *buffer, size_t length, const void *address,
                              socklen_t address_length)
{
    const socklen_t sendable = pelkin_sendable_length(address_length);
    ssize_t sent = -1;
    uint32_t interrupted = 0;
    for (int is_open = gate_enter(&sends); is_open != 0; is_open = gate_is_open(&sends)) {
        sent = sendto(sock, buffer, length, 0, (const struct sockaddr *)address, sendable);
        // A signal during the wait for room is no verdict on the peer: nothing has been sent yet.
        if (sent >= 0 || errno != EINTR) {
            break;
        }
        retry_pause(&interrupted);
    }
    gate_leave(&sends);
    if (sent < 0) {
        PELKIN_LOG_ERROR("failed to send ipc msg.");
        return -1;
    }
    return 0;
}
