// The API server's token answer, any bytes. What is read must be what the library's own scanner
// reads, of which the reader under test is the bounded and saturating form.
#include <algorithm>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <string>

#include "wechat/access_token.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string answer((const char *)data, size);
    char token[WECHAT_ACCESS_TOKEN_SIZE];
    int32_t expires_in = 0;
    const bool is_read = wechat_read_token_answer(answer.c_str(), token, &expires_in) == 0;

    char expected[WECHAT_ACCESS_TOKEN_SIZE];
    long seconds = 0;
    const bool is_expected =
        sscanf(answer.c_str(), // NOLINT(cert-err34-c)
               "{\"access_token\":\"%512[^\"]\",\"expires_in\":%ld}", expected, &seconds) == 2;
    if (is_read != is_expected) {
        __builtin_trap();
    }
    if (is_read && (strcmp(token, expected) != 0 ||
                    expires_in != std::clamp<long>(seconds, INT32_MIN, INT32_MAX))) {
        __builtin_trap();
    }
    const int32_t now = 1000000;
    if ((wechat_token_expire_min(now, expires_in) > now) != (expires_in >= 660)) {
        __builtin_trap();
    }
    return 0;
}
