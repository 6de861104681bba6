#include "log/unix_sock.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static void set_address(struct sockaddr_un *address, const char *path)
{
    *address = {};
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, path, strnlen(path, sizeof address->sun_path - 1));
}

// The kernel's own reckoning of a named address: the family and the name, without its NUL.
static socklen_t address_length(const struct sockaddr_un *address)
{
    return (socklen_t)(sizeof address->sun_family + strlen(address->sun_path));
}

// The absolute, link-free form of `path`; when its last component does not exist yet, that of its
// directory joined with the component. 0, or -1 when the directory does not resolve.
static int resolve_path(const char *path, char resolved[PATH_MAX])
{
    if (realpath(path, resolved) != nullptr) {
        return 0;
    }
    if (errno != ENOENT) {
        return -1;
    }
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    char directory[PATH_MAX];
    const int written = slash == nullptr ? snprintf(directory, sizeof directory, ".")
                                         : snprintf(directory, sizeof directory, "%.*s",
                                                    (int)(slash - path + 1), path);
    if (written < 0 || (size_t)written >= sizeof directory ||
        realpath(directory, resolved) == nullptr) {
        return -1;
    }
    const size_t used = strlen(resolved);
    const int joined =
        snprintf(resolved + used, PATH_MAX - used, "%s%s", used > 1 ? "/" : "", name);
    return joined < 0 || (size_t)joined >= PATH_MAX - used ? -1 : 0;
}

static int bind_local(int fd, struct sockaddr_un *local, const char *name)
{
    set_address(local, name);
    unlink(local->sun_path);
    return bind(fd, (const struct sockaddr *)local, address_length(local));
}

static int connect_to(int fd, const struct sockaddr_un *peer)
{
    return connect(fd, (const struct sockaddr *)peer, address_length(peer));
}

int32_t unix_sock_reconnect(const struct unix_sock *sock)
{
    return connect_to(sock->fd, &sock->peer);
}

// A client without a name of its own keeps its socket when the daemon is absent.
static int connect_peer(int fd, struct unix_sock *sock, const char *path, int32_t temp_name)
{
    set_address(&sock->peer, path);
    const int rc = connect_to(fd, &sock->peer);
    return temp_name != 0 ? rc : 0;
}

// The name to bind, "" for none. 0, or -1 when the daemon's directory does not resolve.
static int choose_name(const char *path, int32_t daemon, int32_t temp_name, char name[PATH_MAX])
{
    name[0] = '\0';
    if (temp_name != 0) {
        // Not a secret: the number only keeps names of one process apart.
        snprintf(name, PATH_MAX, "/tmp/uds-%d-%d", getpid(), rand() & 0xFFFF); // NOLINT
    }
    return daemon != 0 ? resolve_path(path, name) : 0;
}

// The descriptor, bound and connected as asked, or -1.
static int open_socket(const char *path, struct unix_sock *sock, const char *name, int32_t daemon,
                       int32_t temp_name)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if ((name[0] != '\0' && bind_local(fd, &sock->local, name) != 0) ||
        (daemon == 0 && connect_peer(fd, sock, path, temp_name) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

int32_t unix_sock_open(const char *path, struct unix_sock *sock, int32_t daemon, int32_t temp_name)
{
    if (sock == nullptr) {
        return -1;
    }
    *sock = {};
    sock->fd = -1;
    char name[PATH_MAX];
    if ((daemon != 0 && temp_name != 0) || choose_name(path, daemon, temp_name, name) != 0) {
        return -1;
    }
    sock->fd = open_socket(path, sock, name, daemon, temp_name);
    if (sock->fd < 0 && name[0] != '\0') {
        unlink(name);
    }
    if (sock->fd < 0 && daemon != 0) {
        unlink(path); // a link to `name`
    }
    return sock->fd;
}

int32_t unix_sock_open_daemon(const char *path, struct unix_sock *sock)
{
    return unix_sock_open(path, sock, 1, 0);
}

int32_t unix_sock_open_client(const char *path, struct unix_sock *sock, int32_t temp_name)
{
    return unix_sock_open(path, sock, 0, temp_name);
}

void unix_sock_close(const struct unix_sock *sock)
{
    if (sock->local.sun_family == AF_UNIX) {
        unlink(sock->local.sun_path);
    }
    if (sock->fd >= 0) {
        close(sock->fd);
    }
}

int32_t unix_sock_get_fd(const struct unix_sock *sock)
{
    return sock->fd;
}

// poll() rather than select(): a descriptor may have any number. What select() counts as readable
// does so here, a pending error and a hang-up among it.
static bool is_readable_within(int fd, int timeout_ms)
{
    const int readable = POLLIN | POLLERR | POLLHUP;
    struct pollfd watched = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&watched, 1, timeout_ms) == 1 && (watched.revents & readable) != 0;
}

int32_t unix_sock_pending(const struct unix_sock *sock)
{
    return is_readable_within(sock->fd, 0) ? 1 : 0;
}

int32_t unix_sock_request(const struct unix_sock *sock, const void *request, size_t request_length,
                          void *reply, size_t *reply_length)
{
    if (send(sock->fd, request, request_length, 0) < 0) {
        return -1;
    }
    if (!is_readable_within(sock->fd, UNIX_SOCK_REPLY_TIMEOUT_S * 1000)) {
        return -2;
    }
    const ssize_t received = recv(sock->fd, reply, *reply_length, 0);
    if (received < 0) {
        return (int32_t)received;
    }
    *reply_length = (size_t)received;
    return 0;
}
