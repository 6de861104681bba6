// Names and numbers of levels. One input is a number (32 bits, host order) to find the name of, and
// in the rest a text to find the value of.
#include <string.h>

#include "fuzz/harness.h"
#include "fuzz/number_model.h"
#include "log/level_names.h"

static char lower(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? (char)(letter + 32) : letter;
}

static bool is_alike(const std::string &text, const char *name)
{
    bool alike = text.size() == strlen(name);
    for (size_t i = 0; alike && i < text.size(); i++) {
        alike = lower(text[i]) == name[i];
    }
    return alike;
}

static void check_table(const struct level_name *table, size_t entries, const std::string &text,
                        int32_t number)
{
    const char *name = nullptr;
    int32_t value = -1;
    int64_t given = -1;
    const bool is_number =
        !text.empty() && text[0] >= '0' && text[0] <= '9' && model_number(text, &given);
    for (size_t i = 0; i < entries; i++) {
        name = table[i].value == number ? table[i].name : name;
        if (is_alike(text, table[i].name) || (is_number && table[i].value == given)) {
            value = table[i].value;
        }
    }
    require(vesk_syslog_encode(number, table) == name, "the name");
    require(vesk_syslog_decode(text.c_str(), table) == value, "the value");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct input input = {data, size};
    int32_t number = 0;
    const std::string bytes = take_bytes(&input, sizeof number);
    memcpy(&number, bytes.data(), bytes.size());
    const std::string rest = take_bytes(&input, input.size);
    const std::string text = rest.c_str();
    check_table(tu_prioritynames, 8, text, number);
    check_table(tu_facilitynames, 9, text, number);
    return 0;
}
