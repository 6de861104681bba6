#include "fuzz/harness.h"

#include <algorithm>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "log/log.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    tu_pelkin_fltlog = 1;
    tu_trace_level = TU_LEVEL_DEBUG;
    (void)signal(SIGPIPE, SIG_IGN); // as the daemon does
    return 0;
}

// The record is read as the system log would read it, and dropped.
extern "C" void __wrap_syslog(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
}

uint8_t take_byte(struct input *input)
{
    if (input->size == 0) {
        return 0;
    }
    input->size--;
    return *input->data++;
}

uint16_t take_word(struct input *input)
{
    const uint8_t high = take_byte(input);
    return (uint16_t)(high << 8 | take_byte(input));
}

std::string take_bytes(struct input *input, size_t length)
{
    const size_t taken = std::min(length, input->size);
    std::string bytes((const char *)input->data, taken);
    input->data += taken;
    input->size -= taken;
    return bytes;
}

std::string text_of_field(const char *field, size_t size)
{
    return {field, strnlen(field, size)};
}

void require(bool holds, const char *what)
{
    if (!holds) {
        (void)fprintf(stderr, "broken: %s\n", what);
        __builtin_trap();
    }
}

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
