/* How much a pipe takes. */
#ifndef PELKIN_PLATFORM_PIPE_CAPACITY_H
#define PELKIN_PLATFORM_PIPE_CAPACITY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that every pipe took before its size could be asked for (Linux before 2.6.35). */
#define PIPE_CAPACITY_UNASKED 65536

/*
 * The capacity of the pipe that the descriptor `fd` is an end of, in bytes; PIPE_CAPACITY_UNASKED
 * where the kernel doesn't tell. Leaves errno as it is. Any thread.
 */
int32_t pipe_capacity(int32_t fd);

/*
 * Gives the pipe `capacity` bytes or a little more; what is in it stays. 0, or -1 with errno set:
 * EPERM without CAP_SYS_RESOURCE above the administrator's limit, EINVAL where no kernel can do it.
 */
int32_t pipe_enlarge(int32_t fd, int32_t capacity);

#ifdef __cplusplus
}
#endif
#endif
