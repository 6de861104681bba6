/*
 * MIPS: $0 to $31 by number, then HI and LO. The kernel keeps each in 64 bits, whatever the
 * processor's width; what is wider than an address repeats its sign.
 */
#ifndef __mips__
#error "this file reads the signal context of MIPS"
#endif

#include <signal.h>
#include <sys/ucontext.h>

#include "crash/context.h"

static const uint32_t STACK_POINTER = 29;
static const uint32_t RETURN_ADDRESS = 31;

const int32_t crash_return_offset = -(int32_t)sizeof(uintptr_t);

void crash_read_context(const void *signal_context, struct crash_context *context)
{
    const mcontext_t *machine = &((const ucontext_t *)signal_context)->uc_mcontext;
    *context = {};
    for (uint32_t i = 0; i < CRASH_REGISTERS; i++) {
        context->registers[i] = (uintptr_t)machine->gregs[i];
    }
    context->pc = (uintptr_t)machine->pc;
    context->sp = context->registers[STACK_POINTER];
    context->ra = context->registers[RETURN_ADDRESS];
    context->mdlo = (uint64_t)machine->mdlo;
    context->mdhi = (uint64_t)machine->mdhi;
}
