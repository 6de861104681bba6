/* Waiting on a connection that somebody may cut meanwhile. */
#ifndef PELKIN_TESTS_SOAK_PAUSE_H
#define PELKIN_TESTS_SOAK_PAUSE_H

#include <poll.h>

namespace soak
{

/* Waits; ends early when either side has shut the connection down. */
inline void pause_or_cut(int fd, int milliseconds)
{
    pollfd watched = {.fd = fd, .events = POLLRDHUP, .revents = 0};
    (void)poll(&watched, 1, milliseconds);
}

} // namespace soak
#endif
