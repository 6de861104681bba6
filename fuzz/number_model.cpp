#include "fuzz/number_model.h"

#include <algorithm>

bool model_number(std::string_view text, int64_t *number)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool is_signed = !text.empty() && (text[0] == '-' || text[0] == '+');
    const int64_t sign = is_signed && text[0] == '-' ? -1 : 1;
    text.remove_prefix(is_signed ? 1 : 0);
    const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
    *number = 0;
    for (const char digit : digits) {
        *number = std::min(*number * 10 + (digit - '0'), (int64_t)1 << 32);
    }
    *number *= sign;
    return !digits.empty();
}
