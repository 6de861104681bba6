#include "platform/ipc_open_sock.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

// Datagrams that a peer leaves unread are charged to the sending socket, so its buffer is asked for
// without regard to the administrator's limit first (a privileged request), and up to that limit
// when that is refused. The kernel doubles the number. A receive buffer is never charged here.
static void enlarge_send_buffer(int fd)
{
    const int asked = IPC_UNREAD_MAX / 2;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &asked, sizeof asked) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &asked, sizeof asked);
    }
}

// Sockets alone can't be opened. Asking for the file's status instead would fail on one that was
// made after 2038, with a C library whose times have 32 bits.
static bool is_socket(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENXIO;
    }
    close(fd);
    return false;
}

// Removes the socket file when no process serves it. What stands there otherwise makes the bind
// that follows fail with EADDRINUSE by itself.
static void remove_stale_socket(const struct sockaddr_un *address)
{
    if (!is_socket(address->sun_path)) {
        return;
    }
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return;
    }
    const int rc = connect(probe, (const struct sockaddr *)address, sizeof *address);
    if (rc != 0 && errno == ECONNREFUSED) {
        unlink(address->sun_path);
    }
    close(probe);
}

static int bind_for_owner_and_group(int fd, const struct sockaddr_un *address)
{
    // Through the umask, so that the file never exists with wider permissions, not even for a
    // moment.
    const mode_t old_mask = umask(0117);
    const int rc = bind(fd, (const struct sockaddr *)address, sizeof *address);
    const int bind_errno = errno;
    umask(old_mask);
    errno = bind_errno;
    return rc;
}

int32_t ipc_open_sock(const char *path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (length >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, length);

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int error = 0;
    if (fd >= FD_SETSIZE) {
        error = EMFILE;
    } else {
        remove_stale_socket(&address);
        enlarge_send_buffer(fd);
        const struct timeval timeout = {.tv_sec = IPC_SEND_TIMEOUT_S, .tv_usec = 0};
        if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0 ||
            bind_for_owner_and_group(fd, &address) != 0) {
            error = errno;
        }
    }
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}
