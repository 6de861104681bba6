#include "platform/poll_one.h"

#include <errno.h>
#include <time.h>

#include "platform/retry_pause.h"

int32_t poll_one(struct pollfd *watched, int32_t seconds, int32_t microseconds)
{
    const struct timespec timeout = {.tv_sec = seconds, .tv_nsec = microseconds * 1000L};
    uint32_t interrupted = 0;
    int ready = ppoll(watched, 1, &timeout, nullptr);
    while (ready < 0 && errno == EINTR) {
        retry_pause(&interrupted);
        ready = ppoll(watched, 1, &timeout, nullptr);
    }
    return ready;
}
