/*
 * What is in force in the daemon: its own words, read from its memory as a debugger would. The
 * files in /tmp say only what it will find when it is told to look.
 */
#ifndef PELKIN_TOOLS_DAEMON_MEMORY_H
#define PELKIN_TOOLS_DAEMON_MEMORY_H

#include <cstdint>
#include <optional>
#include <sys/types.h>

/* None where it could not be read: that takes root, and a program of the same word size. */
struct in_force {
    std::optional<uint32_t> level;
    std::optional<uint32_t> verification_ignored;
    std::optional<uint32_t> result_ignored;
};
in_force read_in_force(pid_t pid);

#endif
