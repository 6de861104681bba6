/* `pelkinctl status`: everything that can be seen of the daemon without disturbing it. */
#ifndef PELKIN_TOOLS_STATUS_H
#define PELKIN_TOOLS_STATUS_H

#include "tools/probe.h"

/* The exit status is that of the probe. */
int run_status(const probe_command &command);

#endif
