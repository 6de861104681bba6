#include "platform/cut_text.h"

#include <stdarg.h>
#include <stdio.h>

void cut_text_append(struct cut_text *text, const char *format, ...)
{
    const size_t room = text->size - text->used;
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(text->start + text->used, room, format, arguments);
    va_end(arguments);
    if (written > 0 && room > 0) {
        text->used += (size_t)written < room ? (size_t)written : room - 1;
    }
}
