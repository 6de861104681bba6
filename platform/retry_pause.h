/*
 * The pause between repetitions of a call that keeps failing for no lasting reason (EINTR, EAGAIN,
 * no memory). Such a failure is mostly gone at the next try; one that stays must not turn the
 * caller's loop into one that takes a whole processor and floods the log.
 */
#ifndef PELKIN_PLATFORM_RETRY_PAUSE_H
#define PELKIN_PLATFORM_RETRY_PAUSE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Failures in a row after which the next try comes at once. */
#define RETRIES_AT_ONCE 32u
/* Milliseconds of pause after each later one. */
#define RETRY_PAUSE_MS 100

/*
 * To be called after a failure, before the next try: counts it in `*in_a_row`, which the caller
 * sets to 0 at a success, and pauses when there have been many. Leaves errno as it is. Any thread.
 */
void retry_pause(uint32_t *in_a_row);

#ifdef __cplusplus
}
#endif
#endif
