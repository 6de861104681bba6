#include "crash/dump_rotation.h"

#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static const size_t NAME_SIZE = 210;

int32_t crashdump_file_exists(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    (void)close(fd);
    return 1;
}

// The name of a generation (0 is `name` itself), which the caller frees.
static char *make_name(const char *name, int32_t generation, int status)
{
    char *made = (char *)malloc(NAME_SIZE);
    if (made == nullptr) {
        err(status, "inc_dumpfile_ext: Malloc failure");
    }
    const int length = generation < 1 ? snprintf(made, NAME_SIZE, "%s", name)
                                      : snprintf(made, NAME_SIZE, "%s.%d", name, generation);
    if (length < 0 || (size_t)length >= NAME_SIZE) {
        errno = ENAMETOOLONG;
        err(DUMP_ROTATION_EXIT_RENAME, "inc_dumpfile_ext: Error while renaming files");
    }
    return made;
}

void inc_dumpfile_ext(const char *name, int32_t generation, int32_t limit)
{
    char *source =
        make_name(name, generation < 2 ? 0 : generation - 1, DUMP_ROTATION_EXIT_SOURCE_NAME);
    char *target = make_name(name, generation, DUMP_ROTATION_EXIT_TARGET_NAME);
    if (limit - 1 > generation && crashdump_file_exists(target) != 0) {
        inc_dumpfile_ext(name, generation + 1, limit);
    }
    if (rename(source, target) != 0) {
        err(DUMP_ROTATION_EXIT_RENAME, "inc_dumpfile_ext: Error while renaming files");
    }
    free(target);
    free(source);
}
