/* Waiting for one descriptor without ending early for a signal. */
#ifndef PELKIN_PLATFORM_POLL_ONE_H
#define PELKIN_PLATFORM_POLL_ONE_H

#include <poll.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * As poll() for one descriptor, for at most `seconds` and `microseconds` (neither below 0; a
 * million microseconds and more are as good), rounded up to milliseconds and cut at 24 days; a wait
 * that a signal interrupts starts over with the full time. Above 0 when something of
 * `watched->events` or an error is there, 0 at the time-out, below 0 on an error (errno). Any
 * thread.
 */
int32_t poll_one(struct pollfd *watched, int32_t seconds, int32_t microseconds);

#ifdef __cplusplus
}
#endif
#endif
