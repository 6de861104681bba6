/* Starting a thread that can rely on its stack, whatever limit the process was started with. */
#ifndef PELKIN_PLATFORM_THREAD_START_H
#define PELKIN_PLATFORM_THREAD_START_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Bytes of stack that every thread has at least: the deepest chain of calls holds a report and the
 * message made of it, or a request and the TLS library, some 130 KiB.
 */
#define THREAD_STACK_SIZE 262144u

/*
 * Starts a thread with default attributes, but for a stack that would be smaller than
 * THREAD_STACK_SIZE. 0, or an errno value. Any thread.
 */
int32_t start_thread(pthread_t *thread, void *(*body)(void *), void *argument);

#ifdef __cplusplus
}
#endif
#endif
