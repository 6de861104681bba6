/* What starts the daemon on this machine, for hints. */
#ifndef PELKIN_TOOLS_INIT_SYSTEM_H
#define PELKIN_TOOLS_INIT_SYSTEM_H

#include <string>

/*
 * The command of the init system that is there, in brackets behind a space: " (systemctl start
 * pelkin)", or that of an init script; "" when neither is there.
 */
std::string command_hint(const std::string &action);

#endif
