#include "crash/core_setup.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

static const size_t LINE_SIZE = 256;
static const size_t KEY_LONGEST = 31;
static const size_t VALUE_LONGEST = 127;
static const size_t VALUE_SIZE = VALUE_LONGEST + 1;
static const size_t HARDWARE_ID_LENGTH = 7;

static const char *const core_daemon_list[] = {"trundel", "kivren",  "lorix", "vesk",
                                               "mavrid",  "dobbert", "pelkin"};

struct core_platform {
    const char *platform;
    const char *pattern;
    const char *uses_pid;
    rlim_t limit;
};

// The row without a name closes the table; it belongs to no platform and is never applied.
static const struct core_platform core_platform_table[] = {
    {"qx4410", "/etc/quorvane/dump/%e.core", "0", RLIM_INFINITY},
    {"brin900", "/etc/quorvane/dump/%e.core", "0", RLIM_INFINITY},
    {"brin900lt", "/tmp/dump/%e.core", "0", RLIM_INFINITY},
    {"fenwold-standard", "|/bin/kelm_run.sh fenwold-compress-coredump %e", "0", RLIM_INFINITY},
    {nullptr, "/tmp/ap-dump/%e.core", "0", 1048576},
};

int32_t core_write_file(const char *path, const char *text)
{
    const int fd = path == nullptr || text == nullptr ? -1 : open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const size_t length = strlen(text);
    const ssize_t written = write(fd, text, length);
    (void)close(fd);
    return written == (ssize_t)length ? 0 : -1;
}

int32_t core_set_pattern(const char *text)
{
    return core_write_file(CORE_PATTERN_FILE, text);
}

int32_t core_set_uses_pid(const char *text)
{
    return core_write_file(CORE_USES_PID_FILE, text);
}

int32_t core_set_rlimit(rlim_t limit)
{
    const struct rlimit both = {.rlim_cur = limit, .rlim_max = limit};
    return setrlimit(RLIMIT_CORE, &both);
}

static bool is_known_daemon(const char *base)
{
    for (size_t i = sizeof core_daemon_list / sizeof *core_daemon_list; i > 0; i--) {
        const char *daemon = core_daemon_list[i - 1];
        if (strncmp(base, daemon, strlen(daemon)) == 0) {
            return true;
        }
    }
    return false;
}

// A line without its break. Of a longer one the first LINE_SIZE - 1 characters; the rest is
// skipped.
static bool read_line(FILE *file, char line[LINE_SIZE])
{
    int character = getc(file);
    if (character == EOF) {
        return false;
    }
    size_t length = 0;
    for (; character != '\n' && character != EOF; character = getc(file)) {
        if (length < LINE_SIZE - 1) {
            line[length++] = (char)character;
        }
    }
    line[length] = '\0';
    return true;
}

// Whether the line gives the platform; a key or value that is too long makes it count as none.
static bool parse_platform(const char *line, char value[VALUE_SIZE])
{
    // One character more than is allowed of each, to see that it is too long.
    char long_key[KEY_LONGEST + 2];
    char long_value[VALUE_LONGEST + 2];
    if (sscanf(line, "%32[A-Za-z]=%128s", long_key, long_value) != 2 ||
        strlen(long_key) > KEY_LONGEST || strlen(long_value) > VALUE_LONGEST ||
        strncmp(long_key, "PLATFORM", 8) != 0) {
        return false;
    }
    memcpy(value, long_value, strlen(long_value) + 1);
    return true;
}

// The platform by CORE_ENVIRONMENT_FILE, or null.
static const char *read_environment_file(char value[VALUE_SIZE])
{
    FILE *file = fopen(CORE_ENVIRONMENT_FILE, "re");
    if (file == nullptr) {
        return nullptr;
    }
    bool found = false;
    char line[LINE_SIZE];
    while (!found && read_line(file, line)) {
        found = parse_platform(line, value);
    }
    (void)fclose(file);
    return found ? value : nullptr;
}

static bool is_small_brin900(void)
{
    const int fd = open(CORE_HARDWARE_FILE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char id[HARDWARE_ID_LENGTH];
    const ssize_t got = read(fd, id, sizeof id);
    (void)close(fd);
    return got == (ssize_t)sizeof id && strncasecmp(id, "K0900LT", sizeof id) == 0;
}

static const struct core_platform *find_platform(const char *platform)
{
    const struct core_platform *row = core_platform_table;
    while (row->platform != nullptr && strcmp(row->platform, platform) != 0) {
        row++;
    }
    return row->platform == nullptr ? nullptr : row;
}

void core_dump_setup(const char *name)
{
    if (name == nullptr) {
        return;
    }
    const char *slash = strrchr(name, '/');
    if (!is_known_daemon(slash == nullptr ? name : slash + 1)) {
        return;
    }
    char value[VALUE_SIZE];
    const char *platform = getenv("PLATFORM"); // NOLINT(concurrency-mt-unsafe): one thread yet
    if (platform == nullptr) {
        platform = read_environment_file(value);
    }
    if (platform != nullptr && strcasecmp(platform, "brin900") == 0 && is_small_brin900()) {
        platform = "brin900lt";
    }
    const struct core_platform *row = platform == nullptr ? nullptr : find_platform(platform);
    if (row != nullptr) {
        (void)core_set_rlimit(row->limit);
        (void)core_set_pattern(row->pattern);
        (void)core_set_uses_pid(row->uses_pid);
    }
}
