// A decimal number as scanf's "%d" finds it: behind white-space, with a sign or without.
#ifndef PELKIN_FUZZ_NUMBER_MODEL_H
#define PELKIN_FUZZ_NUMBER_MODEL_H

#include <stdint.h>
#include <string_view>

// False when there is none. Beyond 32 bits the number is only known to lie beyond them.
bool model_number(std::string_view text, int64_t *number);

#endif
