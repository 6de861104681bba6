/*
 * The local time as ctime() prints it, without the time zone's lock: the daemon reads the zone's
 * offset now and then as it runs, and a signal handler does the arithmetic itself.
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
 * The current time in seconds since 1970; until 2106 also where time_t has 32 bits. Any thread,
 * safe in a signal handler.
 */
int64_t crash_wall_clock(void);

/*
 * Reads the time zone's offset at `now` (seconds since 1970), with the zone as it is then set. A
 * comparison, except in the first call of each quarter of an hour: zones change their offset at
 * such moments only. At start and once a pass of the main loop; the same thread always.
 */
void crash_renew_zone_offset(int64_t now);

/*
 * Writes `time` (seconds since 1970) in the form "Tue Jan  6 08:14:05 2015", without a line break,
 * with the zone's offset as it was read last; in UTC before that. Safe in a signal handler.
 */
void crash_put_time(int64_t time, char text[CRASH_TIME_SIZE]);

#ifdef __cplusplus
}
#endif
#endif
