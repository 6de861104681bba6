#include "tools/text_fields.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "tools/output.h"

static const double TIMEOUT_LONGEST_S = 24 * 60 * 60;

static bool is_digit(char character)
{
    return std::isdigit((unsigned char)character) != 0;
}

static bool is_hex(char character)
{
    return std::isxdigit((unsigned char)character) != 0;
}

bool parse_mac(const std::string &text, mac_address *mac)
{
    const size_t step = 3; // two digits and a separator
    if (text.size() != mac->size() * step - 1) {
        return false;
    }
    for (size_t i = 0; i < mac->size(); i++) {
        const std::string digits = text.substr(i * step, 2);
        const char separator = i == 0 ? text[2] : text[i * step - 1];
        if (!is_hex(digits[0]) || !is_hex(digits[1]) || (separator != ':' && separator != '-')) {
            return false;
        }
        (*mac)[i] = (uint8_t)std::strtoul(digits.c_str(), nullptr, 16);
    }
    return true;
}

std::string mac_text(const uint8_t mac[PELKIN_MAC_SIZE])
{
    char text[3 * PELKIN_MAC_SIZE];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

bool parse_uint32(const std::string &text, uint32_t *number)
{
    const bool hexadecimal = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    const std::string digits = hexadecimal ? text.substr(2) : text;
    for (const char digit : digits) {
        if (!(hexadecimal ? is_hex(digit) : is_digit(digit))) {
            return false;
        }
    }
    errno = 0;
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, hexadecimal ? 16 : 10);
    if (digits.empty() || errno != 0 || value > UINT32_MAX) {
        return false;
    }
    *number = (uint32_t)value;
    return true;
}

bool parse_uint16(const std::string &text, uint16_t *number)
{
    uint32_t value = 0;
    if (!parse_uint32(text, &value) || value > UINT16_MAX) {
        return false;
    }
    *number = (uint16_t)value;
    return true;
}

bool parse_int32(const std::string &text, int32_t *number)
{
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    const bool starts_well = !text.empty() && (is_digit(text[0]) || text[0] == '-');
    if (!starts_well || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) {
        return false;
    }
    *number = (int32_t)value;
    return true;
}

bool parse_seconds(const std::string &text, double *seconds)
{
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(value) || value <= 0 ||
        value > TIMEOUT_LONGEST_S) {
        return false;
    }
    *seconds = value;
    return true;
}

std::vector<std::string> split_at_commas(const std::string &text)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma = text.find(','); comma != std::string::npos; comma = text.find(',', start)) {
        parts.push_back(text.substr(start, comma - start));
        start = comma + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::string read_data(const std::string &given, std::string *text)
{
    const bool is_file = !given.empty() && given[0] == '@';
    if (!is_file && given != "-") {
        *text = given;
        return "";
    }
    const std::string name = is_file ? given.substr(1) : "standard input";
    std::ifstream file;
    if (is_file) {
        file.open(name, std::ios::binary);
        if (!file.is_open()) {
            return "cannot read " + name + ": " + std::strerror(errno);
        }
    }
    std::istream &input = is_file ? file : std::cin;
    char bytes[PELKIN_TEXT_MAX + 2]; // a line break, and one too many
    errno = 0;
    input.read(bytes, sizeof bytes);
    if (!input.eof() && input.fail()) {
        return "cannot read " + name + ": " + std::strerror(errno);
    }
    text->assign(bytes, (size_t)input.gcount());
    return text->find('\0') == std::string::npos ? "" : name + " holds a NUL; text ends there";
}

bool read_lines(const std::string &path, std::vector<numbered_line> *lines)
{
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file.is_open()) {
            say("cannot read %s: %s", path.c_str(), std::strerror(errno));
            return false;
        }
    }
    std::istream &input = path != "-" ? file : std::cin;
    std::string line;
    for (size_t number = 1; std::getline(input, line); number++) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.find('\0') != std::string::npos) { // the daemon would read no further
            say("%s, line %zu: a NUL in it", path.c_str(), number);
            return false;
        }
        if (!line.empty() && line[0] != '#') {
            lines->push_back({number, line});
        }
    }
    if (input.bad()) {
        say("cannot read %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}
