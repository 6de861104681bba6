/*
 * The kernel's core dumps: for a daemon of the device on a known platform, how large cores may
 * get, where they go and how they are named. The kernel's two settings are the whole system's and
 * stay when the process ends. At start only; nothing here logs.
 */
#ifndef PELKIN_CRASH_CORE_SETUP_H
#define PELKIN_CRASH_CORE_SETUP_H

#include <stdint.h>
#include <sys/resource.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CORE_PATTERN_FILE "/proc/sys/kernel/core_pattern"
#define CORE_USES_PID_FILE "/proc/sys/kernel/core_uses_pid"
#define CORE_ENVIRONMENT_FILE "/etc/ac_env_init"
#define CORE_HARDWARE_FILE "/proc/zel_hw_info/platform"

/*
 * Applies the platform's settings if `name` (a name or path; null is ignored) begins with the name
 * of a daemon of the device and the platform is a known one. Each setting that cannot be made is
 * left as it is.
 */
void core_dump_setup(const char *name);

/* Sets both limits of RLIMIT_CORE to `limit` bytes. The result of setrlimit(). */
int32_t core_set_rlimit(rlim_t limit);

/* Write the text to the kernel's file. As core_write_file(). */
int32_t core_set_pattern(const char *text);
int32_t core_set_uses_pid(const char *text);

/*
 * Writes `text` to the existing file `path`. 0 when all of it was written; -1 otherwise, also for
 * null arguments.
 */
int32_t core_write_file(const char *path, const char *text);

#ifdef __cplusplus
}
#endif
#endif
