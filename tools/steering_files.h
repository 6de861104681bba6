/* The files in /tmp that steer the daemon, as they are now; and beside it, what is in force. */
#ifndef PELKIN_TOOLS_STEERING_FILES_H
#define PELKIN_TOOLS_STEERING_FILES_H

#include <cstdint>
#include <optional>
#include <string>

#include "tools/daemon_memory.h"

struct steering_files {
    bool level_file;              /* it is there */
    std::optional<int32_t> level; /* its number, as the daemon reads it */
    bool verification_ignored;
    bool result_ignored;
};
steering_files look_at_files();

/* "5 (notice)" and the like. */
std::string level_number_text(uint32_t level);

/*
 * What is in force, or "not known", and what the file says when the daemon has not yet read it:
 * "5 (notice); set to 7 (debug), not yet read".
 */
std::string level_state_text(const steering_files &files, const std::optional<uint32_t> &level);
std::string switch_state_text(bool file, const std::optional<uint32_t> &in_force);

#endif
