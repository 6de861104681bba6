/* Giving back stack that a thread does not need for a while. */
#ifndef PELKIN_PLATFORM_STACK_RELEASE_H
#define PELKIN_PLATFORM_STACK_RELEASE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes below the caller's frame that stay: what its next calls use first. */
#define STACK_KEPT 4096

/*
 * Gives the pages of the calling thread's stack that deeper calls have used back to the system;
 * they read as zeros when they are used again. For a thread that has done something deep once. Not
 * for the main thread, whose stack has no fixed end.
 */
void release_stack(void);

#ifdef __cplusplus
}
#endif
#endif
