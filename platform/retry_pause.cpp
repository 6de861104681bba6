#include "platform/retry_pause.h"

#include <errno.h>
#include <time.h>

void retry_pause(uint32_t *in_a_row)
{
    if (*in_a_row < RETRIES_AT_ONCE) {
        (*in_a_row)++;
        return;
    }
    const int saved_errno = errno;
    // Cut short by a signal, it is just a shorter pause.
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = RETRY_PAUSE_MS * 1000000L};
    (void)nanosleep(&pause, nullptr);
    errno = saved_errno;
}
