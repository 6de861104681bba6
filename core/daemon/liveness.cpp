#include "core/daemon/liveness.h"

time_t pelkin_timestamp;
pthread_mutex_t pelkin_timestamp_lock = PTHREAD_MUTEX_INITIALIZER;

void pelkin_mark_alive(void)
{
    (void)pthread_mutex_lock(&pelkin_timestamp_lock);
    pelkin_timestamp = time(nullptr);
    (void)pthread_mutex_unlock(&pelkin_timestamp_lock);
}
