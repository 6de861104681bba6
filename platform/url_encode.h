/* The device library's URL encoder. */
#ifndef PELKIN_PLATFORM_URL_ENCODE_H
#define PELKIN_PLATFORM_URL_ENCODE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes the percent-encoded form of the NUL-terminated `source` into `destination`, which holds
 * `size` bytes, its NUL included. The unreserved characters of RFC 3986, 2.3 (ASCII letters, digits
 * and - _ . ~) stay; every other byte becomes "%" and two upper-case hexadecimal digits. A text
 * that does not fit ends before the first character that would not fit whole. Returns
 * `destination`; with `size` 0 nothing is written. Any thread.
 */
char *urlEncode(const char *source, char *destination, size_t size);

#ifdef __cplusplus
}
#endif
#endif
