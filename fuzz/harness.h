// What every harness shares. At its start each message of the daemon is switched on, so that all
// are formatted; none goes anywhere.
#ifndef PELKIN_FUZZ_HARNESS_H
#define PELKIN_FUZZ_HARNESS_H

#include <stddef.h>
#include <stdint.h>
#include <string>
#include <string_view>

// An input as far as it has not been taken. Taken from the front; what is missing reads as zero.
struct input {
    const uint8_t *data;
    size_t size;
};

uint8_t take_byte(struct input *input);
uint16_t take_word(struct input *input); // high byte first
// `length` bytes, or as many as there are.
std::string take_bytes(struct input *input, size_t length);

// The text up to its NUL, or the whole field when it has none.
std::string text_of_field(const char *field, size_t size);

// A decimal number as scanf's "%d" finds it: behind white-space, with a sign or without. False when
// there is none. Beyond 32 bits the number is only known to lie beyond them.
bool model_number(std::string_view text, int64_t *number);

// Ends the run with a finding, which carries the text, when something does not hold.
void require(bool holds, const char *what);

#endif
