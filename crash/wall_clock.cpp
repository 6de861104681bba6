#include "crash/wall_clock.h"

#include <time.h>

#include "crash/dump_text.h"

static const int64_t DAY = 86400;
static const int64_t START_OF_2020 = 1577836800;
static const int64_t YEARS_AHEAD = DAY * 366 * 20;
// No zone changes its offset twice within this time.
static const int64_t PROBE_STEP = DAY * 7;
static const uint32_t OFFSETS_MOST = 256;

// The zone's offset from UTC in seconds, from a time on.
struct zone_offset {
    int64_t from;
    int64_t seconds;
};

// Written at start, only read afterwards. The first one holds for all earlier times too.
static struct zone_offset offsets[OFFSETS_MOST];
static uint32_t offset_count;

static int64_t offset_at(int64_t time)
{
    const time_t moment = (time_t)time;
    struct tm local = {};
    return localtime_r(&moment, &local) == nullptr ? 0 : local.tm_gmtoff;
}

static void add_offset(int64_t from, int64_t seconds)
{
    if (offset_count < OFFSETS_MOST) {
        offsets[offset_count++] = {.from = from, .seconds = seconds};
    }
}

// The second at which the offset changes, when it does so once between the two times.
static int64_t find_change(int64_t before, int64_t after)
{
    const int64_t old_offset = offset_at(before);
    while (after - before > 1) {
        const int64_t middle = before + (after - before) / 2;
        if (offset_at(middle) == old_offset) {
            before = middle;
        } else {
            after = middle;
        }
    }
    return after;
}

void crash_wall_clock_init(int64_t now)
{
    tzset();
    const int64_t start = now > 0 ? now : 0;
    const int64_t end = (now > START_OF_2020 ? now : START_OF_2020) + YEARS_AHEAD;
    offset_count = 0;
    add_offset(start, offset_at(start));
    for (int64_t time = start; time < end; time += PROBE_STEP) {
        const int64_t next = time + PROBE_STEP;
        if ((time_t)next != next) {
            return; // beyond what this system's clock can count
        }
        if (offset_at(next) != offset_at(time)) {
            add_offset(find_change(time, next), offset_at(next));
        }
    }
}

static int64_t known_offset(int64_t time)
{
    if (offset_count == 0) {
        return 0;
    }
    uint32_t which = 0;
    while (which + 1 < offset_count && offsets[which + 1].from <= time) {
        which++;
    }
    return offsets[which].seconds;
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
    const int64_t local = time + known_offset(time);
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
