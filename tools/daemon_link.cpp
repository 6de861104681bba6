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
#include "tools/init_system.h"
#include "tools/output.h"
#include "tools/own_socket.h"

deadline deadline_in(double seconds)
{
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(seconds));
}

int milliseconds_left(deadline until)
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

std::string unreachable_text(const std::string &path, int error)
{
    if (error == EACCES || error == EPERM) {
        return "no permission to use " + path + ": run as root, or as a user who may write to it";
    }
    return "cannot reach pelkin at " + path + ": " + std::strerror(error) +
           ". Is pelkin running? Start it" + command_hint("start") + ", then ask again";
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

int try_to_open_link(const std::string &path)
{
    const int fd = bind_reply_socket();
    if (fd >= 0 && connect_to(fd, path) != 0) {
        const int error = errno;
        close_own_socket(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int open_link(const std::string &path)
{
    const int fd = try_to_open_link(path);
    if (fd < 0) {
        const int error = errno;
        say("%s", unreachable_text(path, error).c_str());
        errno = error;
    }
    return fd;
}

int try_to_send(int link, std::string_view message, deadline until)
{
    while (send(link, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        const int error = errno;
        if (error != EINTR && (error != EAGAIN || !wait_ready(link, POLLOUT, until))) {
            return error;
        }
    }
    return 0;
}

int send_message(int link, const std::string &path, std::string_view message, deadline until)
{
    const int error = try_to_send(link, message, until);
    if (error == EAGAIN) {
        say("pelkin serves %s but does not take the request: its queue stays full. See what "
            "holds it up: pelkinctl status",
            path.c_str());
        return STATUS_NO_ANSWER;
    }
    if (error != 0) {
        say("%s", unreachable_text(path, error).c_str());
        return STATUS_UNREACHABLE;
    }
    return STATUS_DONE;
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
