// The URL encoder. One input is the size of the destination (16 bits) and the text.
#include <memory>
#include <stdio.h>
#include <string.h>

#include "fuzz/harness.h"
#include "platform/url_encode.h"

static std::string encode(const std::string &text, size_t size)
{
    static const std::string unreserved =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
    std::string encoded;
    for (const char character : text) {
        char unit[4] = {character, '\0'};
        if (unreserved.find(character) == std::string::npos) {
            (void)snprintf(unit, sizeof unit, "%%%02X", (unsigned)(unsigned char)character);
        }
        if (encoded.size() + strlen(unit) >= size) {
            break;
        }
        encoded += unit;
    }
    return encoded;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct input input = {data, size};
    const size_t room = take_word(&input);
    const std::string rest = take_bytes(&input, input.size);
    const std::string text = rest.c_str();
    // Nothing lies behind the destination, so that the sanitizer sees every byte too far.
    const auto destination = std::make_unique<char[]>(room);
    require(urlEncode(text.c_str(), destination.get(), room) == destination.get(), "the result");
    require(room == 0 || encode(text, room) == destination.get(), "the encoded text");
    return 0;
}
