/*
 * The local time as ctime() prints it, without the time zone's lock: the zone's offsets are read
 * once at start, and a signal handler does the arithmetic itself.
 */
#ifndef PELKIN_CRASH_WALL_CLOCK_H
#define PELKIN_CRASH_WALL_CLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A text of 24 characters for years of four digits; room for any year. */
#define CRASH_TIME_SIZE 48

/*
 * Reads the time zone's offsets from `now` (seconds since 1970) on, for 20 years; where the clock
 * is not set yet, until 20 years after 2020. Once, before other threads start.
 */
void crash_wall_clock_init(int64_t now);

/*
 * Writes `time` (seconds since 1970) in the form "Tue Jan  6 08:14:05 2015", without a line break.
 * In UTC before crash_wall_clock_init(). Safe in a signal handler.
 */
void crash_put_time(int64_t time, char text[CRASH_TIME_SIZE]);

#ifdef __cplusplus
}
#endif
#endif
