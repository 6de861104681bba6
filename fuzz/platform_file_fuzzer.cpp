// The core-dump set-up against any environment and hardware file. One input is what is there (8
// bits, see below), three texts with their lengths (8 bits each): the process's name, the PLATFORM
// variable, the hardware file; and the environment file in the rest. What the file names must be
// set up as if the variable named it. The kernel's settings are stand-ins, the limit only written
// down.
#include <algorithm>
#include <stdlib.h>

#include "crash/core_setup.h"
#include "fuzz/harness.h"
#include "fuzz/stand_in_files.h"

enum presence {
    HAS_VARIABLE = 1,
    HAS_HARDWARE_FILE = 2,
    HAS_ENVIRONMENT_FILE = 4,
};

static const std::string OLD = std::string(80, 'o'); // longer than any setting
static const rlim_t OLD_LIMIT = 4096;
static bool is_limit_stand_in;
static rlim_t limits[2];

#ifdef __clang__
#define UNCHECKED __attribute__((no_sanitize("address", "undefined", "coverage")))
#else
#define UNCHECKED __attribute__((no_sanitize("address", "undefined")))
#endif

// The sanitizer sets limits of its own, before its checks of memory work: those calls go through.
extern "C" int __real_setrlimit(int resource, const struct rlimit *limit);
extern "C" UNCHECKED int __wrap_setrlimit(int resource, const struct rlimit *limit)
{
    if (!is_limit_stand_in || resource != RLIMIT_CORE) {
        return __real_setrlimit(resource, limit);
    }
    limits[0] = limit->rlim_cur;
    limits[1] = limit->rlim_max;
    return 0;
}

// The machine's own settings must be out of the daemon's reach. Tried with a file that no machine
// has.
static bool stand_ins_are_in_place(void)
{
    static const char path[] = "/etc/no_machine_has_this_file";
    stand_in_put(path, "");
    is_limit_stand_in = true;
    const bool in_place = core_write_file(path, "x") == 0 && stand_in_content(path) == "x" &&
                          core_set_rlimit(OLD_LIMIT) == 0 && limits[0] == OLD_LIMIT;
    require(in_place, "the stand-ins are in place");
    return in_place;
}

// The first name that the lines give, if any.
static bool model_environment(std::string content, std::string *platform)
{
    static const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    static const std::string spaces = " \t\n\v\f\r";
    while (!content.empty()) {
        const size_t line_end = std::min(content.find('\n'), content.size());
        std::string line = content.substr(0, std::min<size_t>(line_end, 255));
        content.erase(0, line_end + 1);
        line = line.substr(0, line.find('\0'));
        const size_t equals = line.find_first_not_of(letters);
        if (equals == std::string::npos || line[equals] != '=' || equals > 31 ||
            line.compare(0, 8, "PLATFORM") != 0) {
            continue;
        }
        const size_t begin = std::min(line.find_first_not_of(spaces, equals + 1), line.size());
        const std::string value = line.substr(begin, line.find_first_of(spaces, begin) - begin);
        if (!value.empty() && value.size() <= 127) {
            *platform = value;
            return true;
        }
    }
    return false;
}

static void put_if(bool exists, const char *path, const std::string &content)
{
    stand_in_put(path, content);
    if (!exists) {
        stand_in_remove(path);
    }
}

static std::string take_text(struct input *input)
{
    const std::string text = take_bytes(input, take_byte(input));
    return text.substr(0, text.find('\0'));
}

// What the set-up writes: pattern, pid switch, limits.
static std::string set_up(const char *name, const std::string *platform)
{
    (void)unsetenv("PLATFORM");
    if (platform != nullptr) {
        (void)setenv("PLATFORM", platform->c_str(), 1);
    }
    stand_in_put(CORE_PATTERN_FILE, OLD);
    stand_in_put(CORE_USES_PID_FILE, OLD);
    limits[0] = limits[1] = OLD_LIMIT;
    core_dump_setup(name);
    const std::string uses_pid = stand_in_content(CORE_USES_PID_FILE);
    const bool is_set = uses_pid[0] == '0';
    require(uses_pid.substr(1) == OLD.substr(1), "the pid switch");
    require(limits[0] == limits[1] && limits[0] == (is_set ? RLIM_INFINITY : OLD_LIMIT),
            "the limits follow the switch");
    const std::string pattern = stand_in_content(CORE_PATTERN_FILE);
    require(is_set != (pattern == OLD), "the pattern follows the switch");
    return pattern;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool in_place = stand_ins_are_in_place();
    struct input input = {data, size};
    const uint8_t there = take_byte(&input);
    const std::string name = take_text(&input);
    std::string platform = take_text(&input);
    const std::string hardware = take_bytes(&input, take_byte(&input));
    const std::string environment = take_bytes(&input, input.size);
    put_if((there & HAS_ENVIRONMENT_FILE) != 0, CORE_ENVIRONMENT_FILE, environment);
    put_if((there & HAS_HARDWARE_FILE) != 0, CORE_HARDWARE_FILE, hardware);
    if ((there & HAS_VARIABLE) != 0) {
        (void)set_up(name.c_str(), &platform);
    } else {
        const bool is_known =
            (there & HAS_ENVIRONMENT_FILE) != 0 && model_environment(environment, &platform);
        const std::string by_file = set_up(name.c_str(), nullptr);
        require(is_known ? by_file == set_up(name.c_str(), &platform) : by_file == OLD,
                "what the file names");
    }
    return 0;
}
