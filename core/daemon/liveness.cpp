#include "core/daemon/liveness.h"

#include "crash/wall_clock.h"

time_t pelkin_timestamp;
pthread_mutex_t pelkin_timestamp_lock = PTHREAD_MUTEX_INITIALIZER;

void pelkin_mark_alive(void)
{
    (void)pthread_mutex_lock(&pelkin_timestamp_lock);
    pelkin_timestamp = (time_t)crash_wall_clock();
    (void)pthread_mutex_unlock(&pelkin_timestamp_lock);
}

int32_t pelkin_seconds_since_mark(void)
{
    (void)pthread_mutex_lock(&pelkin_timestamp_lock);
    const time_t marked = pelkin_timestamp;
    (void)pthread_mutex_unlock(&pelkin_timestamp_lock);
    return (int32_t)((uint32_t)crash_wall_clock() - (uint32_t)marked);
}
