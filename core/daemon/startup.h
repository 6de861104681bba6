/* Start-up in its fixed order, and the shutdown that follows it or the main loop. Main thread. */
#ifndef PELKIN_CORE_DAEMON_STARTUP_H
#define PELKIN_CORE_DAEMON_STARTUP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELKIN_PID_FILE "/var/run/vok/pelkin.pid"

/* Brings every subsystem up. 0, or -1 at the first step that fails (logged). */
int32_t pelkin_init(void);

/* Takes down what stands, whichever start-up step was the last. The pid file stays. */
void pelkin_shutdown(void);

/* Writes the process id in decimal, without a newline. 0, or -1 when it can't be written. */
int32_t pelkin_write_pid_file(const char *path);

#ifdef __cplusplus
}
#endif
#endif
