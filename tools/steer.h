/* `pelkinctl level` and `pelkinctl ignore`: files that the daemon reads on a signal, and the
 * signal.
 */
#ifndef PELKIN_TOOLS_STEER_H
#define PELKIN_TOOLS_STEER_H

#include <cstdint>
#include <optional>
#include <string>

/* 0 to 7, or a name of the priority table; -1 when it is neither. */
int32_t parse_level(const std::string &text);

/* Writes the level file and sends SIGUSR1. */
int run_level(int32_t level);

/* Prints the level that is in force. */
int run_show_level();

/* Switches to be set or removed; those without a value stay as they are. */
struct ignore_command {
    std::optional<bool> verification;
    std::optional<bool> result;
};

/* Makes or removes the marker files and sends SIGUSR2. */
int run_ignore(const ignore_command &command);

#endif
