// The core-dump set-up against any environment and hardware file. One input is what is there (8
// bits, see below), three texts with their lengths (8 bits each): the process's name, the PLATFORM
// variable, the hardware file; and the environment file in the rest. The kernel's settings are
// stand-ins, and the limit only written down.
#include <algorithm>
#include <map>
#include <stdlib.h>
#include <strings.h>

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

static bool is_daemon(const std::string &name)
{
    const std::string base = name.substr(name.rfind('/') + 1);
    for (const std::string daemon :
         {"trundel", "kivren", "lorix", "vesk", "mavrid", "dobbert", "pelkin"}) {
        if (base.compare(0, daemon.size(), daemon) == 0) {
            return true;
        }
    }
    return false;
}

// The pattern that must be set, or nothing.
static std::string model_pattern(std::string platform, const std::string &hardware)
{
    static const std::map<std::string, std::string> patterns = {
        {"qx4410", "/etc/quorvane/dump/%e.core"},
        {"brin900", "/etc/quorvane/dump/%e.core"},
        {"brin900lt", "/tmp/dump/%e.core"},
        {"fenwold-standard", "|/bin/kelm_run.sh fenwold-compress-coredump %e"}};
    if (strcasecmp(platform.c_str(), "brin900") == 0 && hardware.size() >= 7 &&
        strcasecmp(hardware.substr(0, 7).c_str(), "k0900lt") == 0) {
        platform = "brin900lt";
    }
    const auto row = patterns.find(platform);
    return row == patterns.end() ? "" : row->second;
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool in_place = stand_ins_are_in_place();
    struct input input = {data, size};
    const uint8_t there = take_byte(&input);
    const std::string name = take_text(&input);
    std::string platform = take_text(&input);
    const std::string hardware = take_bytes(&input, take_byte(&input));
    const std::string environment = take_bytes(&input, input.size);
    (void)unsetenv("PLATFORM");
    bool is_known = (there & HAS_VARIABLE) != 0;
    if (is_known) {
        (void)setenv("PLATFORM", platform.c_str(), 1);
    } else if ((there & HAS_ENVIRONMENT_FILE) != 0) {
        is_known = model_environment(environment, &platform);
    }
    put_if((there & HAS_ENVIRONMENT_FILE) != 0, CORE_ENVIRONMENT_FILE, environment);
    put_if((there & HAS_HARDWARE_FILE) != 0, CORE_HARDWARE_FILE, hardware);
    put_if(true, CORE_PATTERN_FILE, OLD);
    put_if(true, CORE_USES_PID_FILE, OLD);
    limits[0] = limits[1] = OLD_LIMIT;
    core_dump_setup(name.c_str());

    const std::string pattern =
        is_known && is_daemon(name)
            ? model_pattern(platform, (there & HAS_HARDWARE_FILE) != 0 ? hardware : "")
            : "";
    const std::string uses_pid = pattern.empty() ? "" : "0";
    const rlim_t limit = pattern.empty() ? OLD_LIMIT : RLIM_INFINITY;
    require(stand_in_content(CORE_PATTERN_FILE) == pattern + OLD.substr(pattern.size()),
            "the pattern");
    require(stand_in_content(CORE_USES_PID_FILE) == uses_pid + OLD.substr(uses_pid.size()),
            "the pid switch");
    require(limits[0] == limit && limits[1] == limit, "the limits");
    return 0;
}
