/* The device library's way of running a shell command line. */
#ifndef PELKIN_PLATFORM_ZEL_SYSTEM_H
#define PELKIN_PLATFORM_ZEL_SYSTEM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Runs `command` through the shell and waits for its end. Returns its wait status, or -1 when it
 * could not be started. Any thread; it blocks for as long as the command runs.
 */
int32_t zel_system(const char *command);

#ifdef __cplusplus
}
#endif
#endif
