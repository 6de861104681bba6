/* Starting a thread with the same stack, whatever limit the process was started with. */
#ifndef PELKIN_PLATFORM_THREAD_START_H
#define PELKIN_PLATFORM_THREAD_START_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Bytes of stack that every thread has: the deepest chain of calls holds a report and the message
 * made of it, or a request and the TLS library, some 130 KiB. Not more, since all workers' stacks
 * together must fit an address space of 32 bits.
 */
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define THREAD_STACK_SIZE (8u * 1024 * 1024) /* sanitizers put several times as much on it */
#else
#define THREAD_STACK_SIZE 262144u
#endif

/*
 * Starts a thread with default attributes, but for a stack of THREAD_STACK_SIZE. 0, or an errno
 * value. Any thread.
 */
int32_t start_thread(pthread_t *thread, void *(*body)(void *), void *argument);

#ifdef __cplusplus
}
#endif
#endif
