#include "platform/poll_one.h"

#include <errno.h>
#include <limits.h>

#include "platform/retry_pause.h"

// Not ppoll(), finer though it is: there are kernels and C libraries without it.
int32_t poll_one(struct pollfd *watched, int32_t seconds, int32_t microseconds)
{
    const int64_t wait_ms = seconds * INT64_C(1000) + (microseconds + INT64_C(999)) / 1000;
    const int timeout_ms = wait_ms < INT_MAX ? (int)wait_ms : INT_MAX;
    uint32_t interrupted = 0;
    int ready = poll(watched, 1, timeout_ms);
    while (ready < 0 && errno == EINTR) {
        retry_pause(&interrupted);
        ready = poll(watched, 1, timeout_ms);
    }
    return ready;
}
