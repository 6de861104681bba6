/* The generations of a dump file: NAME is the current one, NAME.1 the newest older one, and so on.
 */
#ifndef PELKIN_CRASH_DUMP_ROTATION_H
#define PELKIN_CRASH_DUMP_ROTATION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Exit statuses of inc_dumpfile_ext(). */
#define DUMP_ROTATION_EXIT_SOURCE_NAME 31
#define DUMP_ROTATION_EXIT_TARGET_NAME 32
#define DUMP_ROTATION_EXIT_RENAME 33

/* 1 when the file can be opened for reading, else 0. */
int32_t crashdump_file_exists(const char *path);

/*
 * Renames the file before `generation` (below 2: `name` itself; else `name`.generation-1) to
 * `name`.generation, after doing the same with the next generation when the target exists and
 * `generation` is below `limit` - 1. Called with 1 and 4 it keeps three older files. Ends the
 * process with a message and one of the statuses above when a name cannot be had or a file not be
 * renamed. At start only.
 */
void inc_dumpfile_ext(const char *name, int32_t generation, int32_t limit);

#ifdef __cplusplus
}
#endif
#endif
