/* AArch64: x0 to x30 by number (x30 holds the return address), then SP, which has the number 31. */
#ifndef __aarch64__
#error "this file reads the signal context of AArch64"
#endif

#include <signal.h>
#include <sys/ucontext.h>

#include "crash/context.h"

static const uint32_t LINK_REGISTER = 30;
static const uint32_t STACK_POINTER = 31;

// A frame address points at the caller's saved frame address, with the return address above it.
const int32_t crash_return_offset = (int32_t)sizeof(uintptr_t);

void crash_read_context(const void *signal_context, struct crash_context *context)
{
    const mcontext_t *machine = &((const ucontext_t *)signal_context)->uc_mcontext;
    *context = {};
    for (uint32_t i = 0; i <= LINK_REGISTER; i++) {
        context->registers[i] = machine->regs[i];
    }
    context->registers[STACK_POINTER] = machine->sp;
    context->pc = machine->pc;
    context->sp = machine->sp;
    context->ra = machine->regs[LINK_REGISTER];
}
