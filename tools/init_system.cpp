#include "tools/init_system.h"

#include <glob.h>
#include <unistd.h>

std::string command_hint(const std::string &action)
{
    if (access("/run/systemd/system", F_OK) == 0) { // sd_booted(3)
        return " (systemctl " + action + " pelkin)";
    }
    glob_t found = {};
    std::string hint;
    if (glob("/etc/init.d/*pelkin", 0, nullptr, &found) == 0) { // BusyBox numbers them: S80pelkin
        hint = " (" + std::string(found.gl_pathv[0]) + " " + action + ")";
    }
    globfree(&found);
    return hint;
}
