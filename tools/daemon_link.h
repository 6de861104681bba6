/*
 * A link to one of the daemon's sockets: a datagram socket with a name of its own, so that the
 * daemon can answer, connected, so that nobody else can.
 */
#ifndef PELKIN_TOOLS_DAEMON_LINK_H
#define PELKIN_TOOLS_DAEMON_LINK_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

using deadline = std::chrono::steady_clock::time_point;

/* The moment `seconds` from now. */
deadline deadline_in(double seconds);

/* The descriptor of a link to the socket `path`, or -1, said, with what to do next; errno is set.
 */
int open_link(const std::string &path);

/*
 * Sends one datagram, waiting for room at the daemon until the deadline. Returns an exit status;
 * all but STATUS_DONE have been said.
 */
int send_message(int link, const std::string &path, std::string_view message, deadline until);

/* The next datagram, or none when the deadline has passed. */
std::optional<std::string> receive_message(int fd, deadline until);

#endif
