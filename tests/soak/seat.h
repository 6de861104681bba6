/* A bound datagram socket that can be left so that nothing is lost unnoticed. */
#ifndef PELKIN_TESTS_SOAK_SEAT_H
#define PELKIN_TESTS_SOAK_SEAT_H

#include <functional>
#include <memory>
#include <string>

#include "tests/support/requester.h"

namespace soak
{

struct Seat {
    /* Not taken yet. */
    explicit Seat(std::string path);

    /* Nothing in here waits: a full queue at the daemon means false, as a daemon that is gone. */
    void take();
    bool send(const std::string &bytes, const std::string &to = PELKIN_SOCKET_PATH) const;
    /* Hands over all datagrams that are there. */
    void drain(const std::function<void(const std::string &)> &take_datagram) const;
    /*
     * Takes in no more, hands over what came before, and goes: every sender knows whether it was
     * received. Without `remove_file` the socket's file stays, served by nobody.
     */
    void leave(const std::function<void(const std::string &)> &take_datagram, bool remove_file);

    std::string path;
    std::unique_ptr<support::Requester> socket; // null while nobody sits here
};

} // namespace soak
#endif
