/* ARM, 32 bits: r0 to r15 by number, which takes in SP (13), LR (14) and PC (15). */
#ifndef __arm__
#error "this file reads the signal context of 32-bit ARM"
#endif

#include <signal.h>
#include <sys/ucontext.h>

#include "crash/context.h"

static const uint32_t STACK_POINTER = 13;
static const uint32_t LINK_REGISTER = 14;
static const uint32_t PROGRAM_COUNTER = 15;

// A frame address points at the saved PC, with the saved LR below it.
const int32_t crash_return_offset = -(int32_t)sizeof(uintptr_t);

void crash_read_context(const void *signal_context, struct crash_context *context)
{
    const mcontext_t *machine = &((const ucontext_t *)signal_context)->uc_mcontext;
    const unsigned long in_order[] = {
        machine->arm_r0, machine->arm_r1, machine->arm_r2,  machine->arm_r3,
        machine->arm_r4, machine->arm_r5, machine->arm_r6,  machine->arm_r7,
        machine->arm_r8, machine->arm_r9, machine->arm_r10, machine->arm_fp,
        machine->arm_ip, machine->arm_sp, machine->arm_lr,  machine->arm_pc,
    };
    *context = {};
    for (uint32_t i = 0; i < sizeof in_order / sizeof *in_order; i++) {
        context->registers[i] = in_order[i];
    }
    context->pc = in_order[PROGRAM_COUNTER];
    context->sp = in_order[STACK_POINTER];
    context->ra = in_order[LINK_REGISTER];
}
