/* Reading a decimal number from outside text. */
#ifndef PELKIN_PLATFORM_READ_NUMBER_H
#define PELKIN_PLATFORM_READ_NUMBER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads the decimal number at the start of the NUL-terminated `text`, with white space and a sign
 * before it, as "%d" would. One beyond the range of `*number` is stored as that end of the range.
 * Returns where it ends, or null, with `*number` unchanged, when there is none. Any thread.
 */
const char *read_number(const char *text, int32_t *number);

#ifdef __cplusplus
}
#endif
#endif
