#include "tests/soak/seat.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace soak
{

static const size_t LARGEST_DATAGRAM = 65536;

Seat::Seat(std::string with_path) : path(std::move(with_path))
{
}

void Seat::take()
{
    socket = std::make_unique<support::Requester>(path);
    (void)fcntl(socket->fd, F_SETFL, O_NONBLOCK);
}

bool Seat::send(const std::string &bytes, const std::string &to) const
{
    return socket->send(bytes, to);
}

void Seat::drain(const std::function<void(const std::string &)> &take_datagram) const
{
    static thread_local std::vector<char> buffer(LARGEST_DATAGRAM);
    if (socket == nullptr) {
        return;
    }
    for (;;) {
        const ssize_t got = recv(socket->fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            return; // nothing more; 0 once it has been shut down
        }
        take_datagram(std::string(buffer.data(), (size_t)got));
    }
}

void Seat::leave(const std::function<void(const std::string &)> &take_datagram, bool remove_file)
{
    // Senders see the shutdown under the lock under which they queue a datagram.
    (void)shutdown(socket->fd, SHUT_RD);
    drain(take_datagram);
    socket->keeps_file = !remove_file;
    socket.reset();
}

} // namespace soak
