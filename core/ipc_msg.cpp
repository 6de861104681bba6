#include "core/ipc_msg.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "log/log.h"
#include "platform/retry_pause.h"

int32_t pelkin_sock = -1;

// How closing keeps clear of other threads' sends, whose descriptor could be somebody else's by
// then: a send counts itself before it looks whether the socket is closed, closing says so before
// it looks at the count. Both atomic and sequentially consistent, or each could miss the other's
// store.
static uint32_t sends_under_way;
static uint32_t is_closed;

void pelkin_close_sock(void)
{
    __atomic_store_n(&is_closed, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&sends_under_way, __ATOMIC_SEQ_CST) != 0) {
        (void)poll(nullptr, 0, 1);
    }
    (void)close(pelkin_sock);
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
    (void)__atomic_add_fetch(&sends_under_way, 1, __ATOMIC_SEQ_CST);
    uint32_t interrupted = 0;
    while (__atomic_load_n(&is_closed, __ATOMIC_SEQ_CST) == 0) {
        sent = sendto(sock, buffer, length, 0, (const struct sockaddr *)address, sendable);
        // A signal during the wait for room is no verdict on the peer: nothing has been sent yet.
        if (sent >= 0 || errno != EINTR) {
            break;
        }
        retry_pause(&interrupted);
    }
    (void)__atomic_sub_fetch(&sends_under_way, 1, __ATOMIC_SEQ_CST);
    if (sent < 0) {
        PELKIN_LOG_ERROR("failed to send ipc msg.");
        return -1;
    }
    return 0;
}
