#include "core/ipc_send.h"

#include <errno.h>
#include <linux/sockios.h>
#include <string.h>
#include <sys/ioctl.h>
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

socklen_t pelkin_sendable_length(socklen_t reported)
{
    return reported < sizeof(struct sockaddr_un) ? reported : sizeof(struct sockaddr_un);
}

static int32_t send_as(const char *speaker, int32_t sock, const void *buffer, size_t length,
                       const void *address, socklen_t address_length)
{
    ssize_t sent = -1;
    uint32_t interrupted = 0;
    for (int is_open = gate_enter(&sends); is_open != 0; is_open = gate_is_open(&sends)) {
        sent = sendto(sock, buffer, length, 0, (const struct sockaddr *)address,
                      pelkin_sendable_length(address_length));
        // A signal during the wait for room is no verdict on the peer: nothing has been sent yet.
        if (sent >= 0 || errno != EINTR) {
            break;
        }
        retry_pause(&interrupted);
    }
    gate_leave(&sends);
    if (sent < 0) {
        PELKIN_LOG_AS(speaker, ERROR, "failed to send ipc msg.");
        return -1;
    }
    return 0;
}

int32_t pelkin_send_to_socket(int32_t sock, const void *buffer, size_t length, const void *address,
                              socklen_t address_length)
{
    return send_as(__func__, sock, buffer, length, address, address_length);
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
    return send_as(__func__, pelkin_sock, message, sizeof header + header.len, &peer,
                   PEER_ADDRESS_LENGTH);
}

// Whether unread datagrams fill more than half of the socket's buffer.
static bool is_crowded(int32_t sock)
{
    int unread = 0;
    int most = 0;
    socklen_t size = sizeof most;
    if (ioctl(sock, SIOCOUTQ, &unread) != 0 ||
        getsockopt(sock, SOL_SOCKET, SO_SNDBUF, &most, &size) != 0 || unread <= most / 2) {
        return false;
    }
    PELKIN_LOG_AS("pelkin_send_to_socket", ERROR,
                  "answer dropped: unread ones hold %d of %d bytes.", unread, most);
    return true;
}

static bool is_named_by_link(const struct sockaddr_un *address)
{
    char path[sizeof address->sun_path + 1] = "";
    memcpy(path, address->sun_path, sizeof address->sun_path);
    char target = 0;
    // Not lstat(): it fails for a file with a time that the C library cannot hold.
    if (path[0] == '\0' || readlink(path, &target, sizeof target) < 0) {
        return false;
    }
    PELKIN_LOG_AS("pelkin_send_to_socket", ERROR,
                  "answer dropped: the requester's name is a symbolic link.");
    return true;
}

int32_t pelkin_send_answer(const void *buffer, size_t length, const struct sockaddr_un *address,
                           socklen_t address_length)
{
    const bool is_refused =
        gate_enter(&sends) != 0 && (is_crowded(pelkin_sock) || is_named_by_link(address));
    gate_leave(&sends);
    if (is_refused) {
        PELKIN_LOG_AS("pelkin_send_to_socket", ERROR, "failed to send ipc msg.");
        return -1;
    }
    return pelkin_send_to_socket(pelkin_sock, buffer, length, address, address_length);
}
