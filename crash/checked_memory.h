/*
 * Reading memory of this process that may not be there. Safe in a signal handler: the kernel does
 * the reading and reports what cannot be read, so nothing faults.
 */
#ifndef PELKIN_CRASH_CHECKED_MEMORY_H
#define PELKIN_CRASH_CHECKED_MEMORY_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies `size` bytes from `address`. 0, or -1 when not all of them can be read. */
int32_t crash_read_memory(uintptr_t address, void *buffer, size_t size);

/*
 * Copies the NUL-terminated text at `address`, cut to `size` - 1 characters; `text` is always
 * terminated. 0, or -1 when unreadable memory comes before the text's end (the text so far stays).
 */
int32_t crash_read_text(uintptr_t address, char *text, size_t size);

#ifdef __cplusplus
}
#endif
#endif
