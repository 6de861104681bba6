#include "core/ipc_msg.h"

#include <errno.h>
#include <string.h>
#include <sys/un.h>

#include "log/log.h"

int32_t pelkin_sock = -1;

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

int32_t pelkin_send_to_socket(int32_t sock, const void *buffer, size_t length, const void *address,
                              socklen_t address_length)
{
    ssize_t sent = 0;
    do {
        sent = sendto(sock, buffer, length, 0, (const struct sockaddr *)address, address_length);
        // A signal during the wait for room is no verdict on the peer: nothing has been sent yet.
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        PELKIN_LOG_ERROR("failed to send ipc msg.");
        return -1;
    }
    return 0;
}
