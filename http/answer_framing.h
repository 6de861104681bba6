/* Where an HTTP answer's head ends and how long its body says it is. Pure text functions, any
 * thread. */
#ifndef PELKIN_HTTP_ANSWER_FRAMING_H
#define PELKIN_HTTP_ANSWER_FRAMING_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The length of the head in the NUL-terminated `text`, its blank line included; 0 while the blank
 * line is not there; -1 for a null text (logged).
 */
int32_t pelkin_get_http_head_len(const char *text);

/*
 * The number behind the first "Content-Length: " in the NUL-terminated `text`; numbers beyond the
 * 32-bit range read as its ends. -1 when there is none, or for a null text (logged). It counts in
 * exactly this spelling, though RFC 9110, 5.1, would allow others; in a build with tolerant framing
 * (PELKIN_HTTP_FRAMING) in small and capital letters, and an answer 204 or 304 has 0 bytes there.
 */
int32_t pelkin_get_http_data_len(const char *text);

#ifdef __cplusplus
}
#endif
#endif
