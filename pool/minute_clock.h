/* The clock of idle times and expiries. */
#ifndef PELKIN_POOL_MINUTE_CLOCK_H
#define PELKIN_POOL_MINUTE_CLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Whole minutes of the monotonic clock, which changes of the wall-clock time don't touch. Any
 * thread. */
int32_t pelkin_cur_minute(void);

#ifdef __cplusplus
}
#endif
#endif
