// The level file, any bytes, against a saturating "%d" over the first 255 of them.
#include <algorithm>

#include "core/daemon/signals.h"
#include "fuzz/harness.h"
#include "fuzz/stand_in_files.h"
#include "log/log.h"

static const int32_t UNTOUCHED = 12345;

static int32_t model_level(const std::string &content)
{
    int64_t number = 0;
    const std::string text = text_of_field(content.c_str(), 255);
    return model_number(text, &number) ? (int32_t)std::clamp<int64_t>(number, INT32_MIN, INT32_MAX)
                                       : UNTOUCHED;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string content((const char *)data, size);
    const int32_t expected = model_level(content);
    stand_in_put(PELKIN_LEVEL_FILE, content);
    int32_t level = UNTOUCHED;
    require(pelkin_read_log_level_file(&level) == 0 && level == expected, "the level");

    pelkin_set_log_level();
    require(tu_trace_level == (uint32_t)(expected == UNTOUCHED ? 3 : expected),
            "the trace level in force");
    return 0;
}
