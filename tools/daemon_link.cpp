#include "tools/daemon_link.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/ipc_msg.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"

deadline deadline_in(double seconds)
{
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(seconds));
}

// Rounded up: a wait that ends early would only be repeated.
static int milliseconds_left(deadline until)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return 0;
    }
    return left.count() < INT_MAX ? (int)left.count() : INT_MAX;
}

// False when the deadline has passed.
static bool wait_ready(int fd, short events, deadline until)
{
    pollfd watched = {.fd = fd, .events = events, .revents = 0};
    int ready = 0;
    do {
        ready = poll(&watched, 1, milliseconds_left(until));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

static void say_unreachable(const std::string &path, int error)
{
    if (error == EACCES || error == EPERM) {
        say("no permission to use %s: run as root, or as a user who may write to it", path.c_str());
    } else {
        say("cannot reach pelkin at %s: %s. Is pelkin running? Start it (systemctl start pelkin), "
            "then ask again",
            path.c_str(), std::strerror(error));
    }
}

static int connect_to(int fd, const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    path.copy(address.sun_path, path.size());
    return connect(fd, (const sockaddr *)&address, sizeof address);
}

int open_link(const std::string &path)
{
    const int fd = bind_reply_socket();
    if (fd < 0) {
        say("cannot make a socket for the answer in /tmp: %s", std::strerror(errno));
        return -1;
    }
    if (connect_to(fd, path) != 0) {
        const int error = errno;
        say_unreachable(path, error);
        (void)close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int send_message(int link, const std::string &path, std::string_view message, deadline until)
{
    for (;;) {
        if (send(link, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return STATUS_DONE;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            say_unreachable(path, errno);
            return STATUS_UNREACHABLE;
        }
        if (!wait_ready(link, POLLOUT, until)) {
            say("pelkin serves %s but does not take the request: its queue stays full. See what "
                "holds it up: pelkinctl status",
                path.c_str());
            return STATUS_NO_ANSWER;
        }
    }
}

std::optional<std::string> receive_message(int fd, deadline until)
{
    std::string message(PELKIN_MSG_MAX, '\0');
    while (wait_ready(fd, POLLIN, until)) {
        const ssize_t got = recv(fd, message.data(), message.size(), MSG_DONTWAIT);
        if (got >= 0) {
            message.resize((size_t)got);
            return message;
        }
        if (errno != EAGAIN && errno != EINTR) {
            say("cannot receive: %s", std::strerror(errno));
            return std::nullopt;
        }
    }
    return std::nullopt;
}
