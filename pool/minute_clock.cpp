#include "pool/minute_clock.h"

#include <time.h>

int32_t pelkin_cur_minute(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (int32_t)(now.tv_sec / 60);
}
