/* A text that is appended to piece by piece; what does not fit its buffer is cut off. */
#ifndef PELKIN_PLATFORM_CUT_TEXT_H
#define PELKIN_PLATFORM_CUT_TEXT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* `start` is the caller's, `size` bytes long with the NUL; `used` bytes of text stand in it. */
struct cut_text {
    char *start;
    size_t size;
    size_t used;
};

/* Appends as printf() would print it, as far as there is room; the text stays NUL-terminated. */
void cut_text_append(struct cut_text *text, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif
#endif
