/* The main loop's sign of life. */
#ifndef PELKIN_CORE_DAEMON_LIVENESS_H
#define PELKIN_CORE_DAEMON_LIVENESS_H

#include <pthread.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Wall-clock second of the main loop's latest pass; guarded by pelkin_timestamp_lock. */
extern time_t pelkin_timestamp;

/* Guards pelkin_timestamp and nothing else; held for one read or write of it. */
extern pthread_mutex_t pelkin_timestamp_lock;

/* Sets the mark to the current time. Main thread. */
void pelkin_mark_alive(void);

#ifdef __cplusplus
}
#endif
#endif
