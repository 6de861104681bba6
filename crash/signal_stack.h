/*
 * A signal stack for each thread, on which the crash handler runs: a fault whose cause is the stack
 * pointer or a full stack leaves a dump too. Its memory is only reserved; pages are taken when a
 * signal is handled on it. A thread without one crashes on its own stack.
 */
#ifndef PELKIN_CRASH_SIGNAL_STACK_H
#define PELKIN_CRASH_SIGNAL_STACK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Gives the calling thread a signal stack. 0, or -1 with errno when there is no memory. Call it
 * first in the thread's function; crashdump_init() does for the main thread.
 */
int32_t crashdump_thread_init(void);

/*
 * Takes it away again and frees it. Call it last in the thread's function; nothing happens on a
 * thread that has none.
 */
void crashdump_thread_exit(void);

#ifdef __cplusplus
}
#endif
#endif
