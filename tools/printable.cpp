#include "tools/printable.h"

#include <cstddef>

static unsigned byte_at(std::string_view text, size_t at)
{
    return (unsigned char)text[at];
}

// Length of the UTF-8 character that starts with `lead`, 0 when none does.
static size_t character_length(unsigned lead)
{
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// The range of the second byte excludes overlong forms, surrogates and what lies above U+10FFFF.
static bool second_byte_fits(unsigned lead, unsigned second)
{
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    return second >= lowest && second <= highest;
}

// Length of the whole, valid character at the start of a text that is not empty, or 0.
static size_t valid_length(std::string_view text)
{
    const unsigned lead = byte_at(text, 0);
    const size_t length = character_length(lead);
    if (length <= 1) {
        return length;
    }
    if (text.size() < length || !second_byte_fits(lead, byte_at(text, 1))) {
        return 0;
    }
    for (size_t i = 2; i < length; i++) {
        if ((byte_at(text, i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

static bool is_control(std::string_view character)
{
    const unsigned lead = byte_at(character, 0);
    if (character.size() == 1) {
        return (lead < 0x20 && lead != '\n' && lead != '\t') || lead == 0x7F;
    }
    return lead == 0xC2 && byte_at(character, 1) < 0xA0; // C1, U+0080 to U+009F
}

std::string printable(std::string_view text)
{
    std::string kept;
    kept.reserve(text.size());
    while (!text.empty()) {
        const size_t length = valid_length(text);
        if (length > 0 && !is_control(text.substr(0, length))) {
            kept += text.substr(0, length);
        }
        text.remove_prefix(length > 0 ? length : 1);
    }
    return kept;
}

std::string json_text(std::string_view text)
{
    std::string quoted = "\"";
    for (const char character : printable(text)) {
        switch (character) {
        case '\n':
            quoted += "\\n";
            break;
        case '\t':
            quoted += "\\t";
            break;
        case '"':
        case '\\':
            quoted += '\\';
            [[fallthrough]];
        default:
            quoted += character;
        }
    }
    return quoted + "\"";
}
