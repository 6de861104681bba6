#include "platform/url_encode.h"

#include <string.h>

static bool is_unreserved(unsigned char byte)
{
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           (byte >= '0' && byte <= '9') || (byte != 0 && strchr("-_.~", byte) != nullptr);
}

char *urlEncode(const char *source, char *destination, size_t size)
{
    static const char hex_digits[] = "0123456789ABCDEF";
    if (size == 0) {
        return destination;
    }
    size_t used = 0;
    for (; *source != '\0'; source++) {
        const unsigned char byte = (unsigned char)*source;
        const size_t width = is_unreserved(byte) ? 1 : 3;
        if (used + width >= size) {
            break;
        }
        if (width == 1) {
            destination[used] = (char)byte;
        } else {
            destination[used] = '%';
            destination[used + 1] = hex_digits[byte >> 4];
            destination[used + 2] = hex_digits[byte & 0x0F];
        }
        used += width;
    }
    destination[used] = '\0';
    return destination;
}
