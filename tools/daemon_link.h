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

/* For poll(): rounded up, 0 when it has passed. */
int milliseconds_left(deadline until);

/*
 * The descriptor of a link to the socket `path`, or -1, said, with what to do next; errno is set.
 * close_own_socket() ends it.
 */
int open_link(const std::string &path);

/* The same without a word, and what there is to be said of that errno. */
int try_to_open_link(const std::string &path);
std::string unreachable_text(const std::string &path, int error);

/*
 * Sends one datagram, waiting for room until the deadline. 0, or an errno value: EAGAIN when the
 * deadline has passed.
 */
int try_to_send(int link, std::string_view message, deadline until);

/*
 * Sends one datagram, waiting for room at the daemon until the deadline. Returns an exit status;
 * all but STATUS_DONE have been said.
 */
int send_message(int link, const std::string &path, std::string_view message, deadline until);

/* The next datagram, or none when the deadline has passed. */
std::optional<std::string> receive_message(int fd, deadline until);

#endif
