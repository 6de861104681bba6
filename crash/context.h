/*
 * What a dump shows of the crashed context. One file a processor reads it from the signal context
 * that the kernel hands to a handler; the build picks the file, and stops on other processors.
 */
#ifndef PELKIN_CRASH_CONTEXT_H
#define PELKIN_CRASH_CONTEXT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CRASH_REGISTERS 32

struct crash_context {
    uintptr_t pc;
    uintptr_t sp;
    uintptr_t ra; /* return address, or the nearest that the processor has; 0 when not known */
    uintptr_t registers[CRASH_REGISTERS]; /* in the processor's own order; the rest 0 */
    uint64_t mdlo;                        /* multiply/divide registers; 0 where there are none */
    uint64_t mdhi;
};

/* Bytes from a frame address to the return address that is stored beside it. */
extern const int32_t crash_return_offset;

/*
 * Reads the third argument of a signal handler, which must be valid. Memory that the registers
 * point to is only read where it can be. Safe in a signal handler.
 */
void crash_read_context(const void *signal_context, struct crash_context *context);

#ifdef __cplusplus
}
#endif
#endif
