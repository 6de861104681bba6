/*
 * The answer to the system monitor's liveness probes: 12-byte datagrams, the envelope of
 * core/ipc_msg.h without a payload. A thread of its own answers, but only while the main loop's
 * mark (core/daemon/liveness.h) is less than 10 seconds old: a daemon whose main loop is stuck
 * falls silent.
 */
#ifndef PELKIN_CORE_DAEMON_MONITOR_H
#define PELKIN_CORE_DAEMON_MONITOR_H

#include <stdint.h>

#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Age of the main loop's mark, in seconds, from which probes go unanswered. */
#define PELKIN_STALE_AFTER_S 10

/* The module id that replies carry as their sender. Set before the thread's first probe. */
extern uint8_t vokmon_module_id;

/* The body of the monitor thread, which lives as long as the process; `argument` is not used. */
void *pelkin_vokmon_reply(void *argument);

/*
 * Opens the socket at `path` (at most 108 bytes), replacing any file there, and records the module
 * id. The descriptor (close-on-exec), or -1.
 */
int32_t vokmon_open_sock(const char *path, uint8_t module_id);

void vokmon_set_module(uint8_t module_id);

/*
 * Takes one datagram and answers it when it is a probe. 0 after an answer, which is not waited for
 * if the prober's queue is full; -1 when there was none to take or it was no probe. Monitor thread.
 */
int32_t vokmon_reply(int32_t fd);

#ifdef __cplusplus
}
#endif
#endif
