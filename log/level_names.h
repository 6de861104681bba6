/* Names of syslog priorities, facilities and flow levels, and the lookups over such tables. */
#ifndef PELKIN_LOG_LEVEL_NAMES_H
#define PELKIN_LOG_LEVEL_NAMES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct level_name {
    const char *name;
    int32_t value;
};

/* Priorities 0 to 7 of syslog (RFC 5424, 6.2.1) by their usual names; ends with (null, -1). */
extern const struct level_name tu_prioritynames[9];
/* Facilities local0 to local7, shifted, and "keep", one of our own; ends with (null, -1). */
extern const struct level_name tu_facilitynames[10];
/* Not for the lookups: no closing entry, and its first value is the others' closing value. */
extern const struct level_name tu_flowlevel[4];

/* The name of the first entry with `value`, or null. Any thread, as the function below. */
const char *vesk_syslog_encode(int32_t value, const struct level_name *table);

/*
 * The value of the entry called `name`, upper and lower case being alike; a `name` that starts with
 * a digit is a number and stands for itself when the table holds it. -1 when there is none.
 */
int32_t vesk_syslog_decode(const char *name, const struct level_name *table);

#ifdef __cplusplus
}
#endif
#endif
