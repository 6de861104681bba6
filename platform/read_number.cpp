#include "platform/read_number.h"

#include <stdlib.h>

const char *read_number(const char *text, int32_t *number)
{
    char *end = nullptr;
    // 64 bits, also where a long has 32: the number's own range is then cut in one place.
    const long long value = strtoll(text, &end, 10);
    if (end == text) {
        return nullptr;
    }
    const long long low = value < INT32_MIN ? INT32_MIN : value;
    *number = (int32_t)(low > INT32_MAX ? INT32_MAX : low);
    return end;
}
