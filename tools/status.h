/* `pelkinctl status`: the daemon at a glance. */
#ifndef PELKIN_TOOLS_STATUS_H
#define PELKIN_TOOLS_STATUS_H

/* The exit status is that of a probe. */
int run_status(bool json);

#endif
