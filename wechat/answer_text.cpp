#include "wechat/answer_text.h"

#include <string.h>

#include "platform/read_number.h"

const char *wechat_pass_literal(const char *at, const char *literal)
{
    const size_t length = strlen(literal);
    return at != nullptr && strncmp(at, literal, length) == 0 ? at + length : nullptr;
}

const char *wechat_pass_to_quote(const char *at)
{
    const char *quote = at != nullptr ? strchr(at, '"') : nullptr;
    return quote != at ? quote : nullptr;
}

const char *wechat_read_number(const char *at, int32_t *number)
{
    return at != nullptr ? read_number(at, number) : nullptr;
}

const char *wechat_read_text(const char *at, char *text, size_t size)
{
    size_t length = 0;
    while (at != nullptr && length < size - 1 && at[length] != '"' && at[length] != '\0') {
        text[length] = at[length];
        length++;
    }
    text[length] = '\0';
    return length > 0 ? at + length : nullptr;
}
