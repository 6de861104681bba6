/*
 * The main loop: waits for datagrams and signals, marks its own liveness, takes at most one of each
 * a pass, lets idle workers go.
 */
#ifndef PELKIN_CORE_DAEMON_MAIN_LOOP_H
#define PELKIN_CORE_DAEMON_MAIN_LOOP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds of one wait without traffic. */
#define PELKIN_LOOP_WAIT_S 5

/* Runs until the request socket fails for good. Main thread, after pelkin_init(). */
void pelkin_main_loop(void);

#ifdef __cplusplus
}
#endif
#endif
