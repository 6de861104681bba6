/* `pelkinctl log`: the log service's place taken, and its records shown as they come. */
#ifndef PELKIN_TOOLS_LOG_VIEW_H
#define PELKIN_TOOLS_LOG_VIEW_H

/* Until it is interrupted, or nobody reads standard output any more. */
int run_log();

#endif
