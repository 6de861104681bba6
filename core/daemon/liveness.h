/* The main loop's sign of life. */
#ifndef PELKIN_CORE_DAEMON_LIVENESS_H
#define PELKIN_CORE_DAEMON_LIVENESS_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Wall-clock second of the main loop's latest pass, cut to the size of time_t; guarded by
 * pelkin_timestamp_lock.
 */
extern time_t pelkin_timestamp;

/* Guards pelkin_timestamp and nothing else; held for one read or write of it. */
extern pthread_mutex_t pelkin_timestamp_lock;

/* Sets the mark to the current time. Main thread. */
void pelkin_mark_alive(void);

/* Seconds from the mark to the current time; below 0 when the clock was set back. Any thread. */
int32_t pelkin_seconds_since_mark(void);

#ifdef __cplusplus
}
#endif
#endif
