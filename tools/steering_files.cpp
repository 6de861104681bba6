#include "tools/steering_files.h"

#include <fcntl.h>
#include <unistd.h>

#include "core/daemon/signals.h"
#include "log/level_names.h"
#include "platform/read_number.h"

static const uint32_t LEVEL_WITHOUT_FILE = 3; // what the daemon sets when it finds no number

static bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

static std::optional<int32_t> read_level_file()
{
    const int fd = open(PELKIN_LEVEL_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    char text[256];
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    text[got > 0 ? got : 0] = '\0';
    int32_t level = 0;
    return read_number(text, &level) != nullptr ? std::optional<int32_t>(level) : std::nullopt;
}

steering_files look_at_files()
{
    return {.level_file = exists(PELKIN_LEVEL_FILE),
            .level = read_level_file(),
            .verification_ignored = exists(PELKIN_IGNORE_VERIFICATION_FILE),
            .result_ignored = exists(PELKIN_IGNORE_RESULT_FILE)};
}

std::string level_number_text(uint32_t level)
{
    const char *name = level <= 7 ? vesk_syslog_encode((int32_t)level, tu_prioritynames) : nullptr;
    return std::to_string((int32_t)level) + (name != nullptr ? std::string(" (") + name + ")" : "");
}

std::string level_state_text(const steering_files &files, const std::optional<uint32_t> &level)
{
    const uint32_t wanted = files.level ? (uint32_t)*files.level : LEVEL_WITHOUT_FILE;
    const std::string set = files.level ? "set to " + level_number_text(wanted)
                                        : std::string("the file holds no number");
    if (!level) {
        return files.level_file ? "not known; " + set : "not known";
    }
    const std::string text = level_number_text(*level);
    return files.level_file && wanted != *level ? text + "; " + set + ", not yet read" : text;
}

std::string switch_state_text(bool file, const std::optional<uint32_t> &in_force)
{
    const std::string set = file ? "on" : "off";
    if (!in_force) {
        return "not known; set to " + set;
    }
    const std::string text = *in_force != 0 ? "on" : "off";
    return text == set ? text : text + "; set to " + set + ", not yet read";
}
