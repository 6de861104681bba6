/*
 * Steering by signals. The handler only writes the signal's number into a pipe; the main loop reads
 * it and acts on it, between requests:
 *   SIGUSR1  the trace level is read from PELKIN_LEVEL_FILE
 *   SIGUSR2  the two switches (core/switches.h) follow their marker files
 *   SIGCHLD  children that have ended are reaped
 * SIGPIPE is ignored: a write to a closed pipe or socket fails with EPIPE instead.
 */
#ifndef PELKIN_CORE_DAEMON_SIGNALS_H
#define PELKIN_CORE_DAEMON_SIGNALS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELKIN_LEVEL_FILE "/tmp/pelkinLogLevel"
#define PELKIN_IGNORE_VERIFICATION_FILE "/tmp/ignore_fb_token_verification"
#define PELKIN_IGNORE_RESULT_FILE "/tmp/ignore_fb_token_verification_result"

/* The pipe of signal numbers, 4 bytes each: 0 read end, 1 write end; -1 while not open. */
extern int32_t signal_pipe[2];

/* Makes the pipe and installs the handlers. 0, or -1 (logged). Main thread, once, at start-up. */
int32_t pelkin_signal_init(void);

/*
 * The handler. Any thread, in signal context: async-signal-safe calls only. A number for which the
 * pipe has no room is lost and counted: waiting for room could be the main thread waiting for
 * itself.
 */
void pelkin_signal_handler(int signal_number);

/*
 * Takes one signal number from the pipe and acts on it. 0, or -1 (logged) when none could be read.
 * Main thread, when the pipe is readable.
 */
int32_t pelkin_handle_signal(int32_t read_end);

/*
 * Logs the signals that the handler could not pass on since the last call, of a flood the first
 * few. Main thread.
 */
void pelkin_report_lost_signals(void);

/* The action of SIGUSR1: the file's level, or 3 (error) when it holds no number. Main thread. */
void pelkin_set_log_level(void);

/*
 * Reads a decimal number, as scanf's "%d" does, from the first 255 bytes of the level file into
 * `level`, which stays unchanged when there is none. Numbers beyond 32 bits read as the range's
 * ends. Returns 0.
 */
int32_t pelkin_read_log_level_file(int32_t *level);

/* The action of SIGUSR2. Main thread. */
void pelkin_set_debug_switch(void);

/* The action of SIGCHLD: reaps every child that has ended. The last result of waitpid(). Main
 * thread. */
int32_t func_waitpid(void);

#ifdef __cplusplus
}
#endif
#endif
