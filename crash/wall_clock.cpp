#include "crash/wall_clock.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "crash/dump_text.h"

static const int64_t DAY = 86400;
static const int64_t QUARTER_OF_AN_HOUR = 900;
// Until 2100 the calendar with its weekdays repeats itself.
static const int64_t YEARS_28 = (28 * 365 + 7) * DAY;

static int32_t zone_offset_s; // atomic: written by the main thread, read by the one that crashes

int64_t crash_wall_clock(void)
{
    if (sizeof(time_t) > sizeof(int32_t)) {
        struct timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec;
    }
    // The C library may refuse to tell a time that doesn't fit; the kernel cuts it to 32 bits.
    long now[2] = {};
    syscall(SYS_clock_gettime, CLOCK_REALTIME, now);
    return (uint32_t)now[0];
}

void crash_renew_zone_offset(int64_t now)
{
    static int64_t quarter = INT64_MIN;
    if (now / QUARTER_OF_AN_HOUR == quarter) {
        return;
    }
    quarter = now / QUARTER_OF_AN_HOUR;
    while ((time_t)now != now) {
        now -= YEARS_28;
    }
    const time_t moment = (time_t)now;
    struct tm local = {};
    tzset();
    if (localtime_r(&moment, &local) != nullptr) {
        __atomic_store_n(&zone_offset_s, (int32_t)local.tm_gmtoff, __ATOMIC_RELAXED);
    }
}

// Rounds down for negative numbers too.
static int64_t floor_divide(int64_t dividend, int64_t divisor)
{
    const int64_t quotient = dividend / divisor;
    return dividend % divisor < 0 ? quotient - 1 : quotient;
}

struct calendar_date {
    int64_t year;
    int64_t month; // 0 is January
    int64_t day;
};

// The Gregorian date of a day counted from 1970-01-01. Years are taken to begin in March, so that
// the leap day is the last day of its year; 719468 days lie between 0000-03-01 and 1970-01-01.
static struct calendar_date date_of(int64_t days)
{
    const int64_t shifted = days + 719468;
    const int64_t era = floor_divide(shifted, 146097); // 400 years
    const int64_t day_of_era = shifted - era * 146097;
    const int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year =
        day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month_from_march = (5 * day_of_year + 2) / 153;
    const int64_t month = (month_from_march + 2) % 12;
    return {.year = era * 400 + year_of_era + (month < 2 ? 1 : 0),
            .month = month,
            .day = day_of_year - (153 * month_from_march + 2) / 5 + 1};
}

void crash_put_time(int64_t time, char text[CRASH_TIME_SIZE])
{
    static const char weekdays[][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int64_t local = time + __atomic_load_n(&zone_offset_s, __ATOMIC_RELAXED);
    const int64_t days = floor_divide(local, DAY);
    const int64_t second = local - days * DAY;
    const struct calendar_date date = date_of(days);
    const int64_t weekday = days + 4 - floor_divide(days + 4, 7) * 7; // 1970-01-01: Thursday

    struct dump_text out = {.bytes = text, .size = CRASH_TIME_SIZE - 1, .used = 0, .fd = -1};
    dump_put(&out, weekdays[weekday]);
    dump_put(&out, " ");
    dump_put(&out, months[date.month]);
    dump_put_decimal(&out, date.day, 3, ' ');
    dump_put(&out, " ");
    dump_put_decimal(&out, second / 3600, 2, '0');
    dump_put(&out, ":");
    dump_put_decimal(&out, second / 60 % 60, 2, '0');
    dump_put(&out, ":");
    dump_put_decimal(&out, second % 60, 2, '0');
    dump_put(&out, " ");
    dump_put_decimal(&out, date.year, 0, ' ');
    text[out.used] = '\0';
}
