/*
 * x86, 64 bits and 32: RAX (EAX), RCX, RDX, RBX, RSP, RBP, RSI, RDI and, with 64 bits, R8 to R15,
 * as instructions number them, then RIP and, in the next slot, the return address. No register
 * holds that one: it is the nearest word on the stack that points behind a call instruction in
 * loaded code. This needs no frame pointers; a stale word that a call left in unused locals can
 * come before the right one.
 */
#include <signal.h>
#include <sys/ucontext.h>

#include "crash/checked_memory.h"
#include "crash/context.h"
#include "crash/symbols.h"

#if defined(__x86_64__)
static const int PROGRAM_COUNTER = REG_RIP;
static const int IN_ORDER[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                               REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                               REG_R12, REG_R13, REG_R14, REG_R15};
#elif defined(__i386__)
static const int PROGRAM_COUNTER = REG_EIP;
static const int IN_ORDER[] = {REG_EAX, REG_ECX, REG_EDX, REG_EBX,
                               REG_ESP, REG_EBP, REG_ESI, REG_EDI};
#else
#error "this file reads the signal context of x86"
#endif
static const uint32_t NUMBERED = sizeof IN_ORDER / sizeof *IN_ORDER;
static const uint32_t STACK_POINTER = 4;

// More than the largest frame of the daemon.
static const uint32_t SEARCH_BYTES = 131072;
static const uint32_t WORDS_PER_READ = 32;

// A frame address points at the caller's saved frame address, with the return address above it.
const int32_t crash_return_offset = (int32_t)sizeof(uintptr_t);

static bool is_indirect_call(const uint8_t *code)
{
    return code[0] == 0xff && (code[1] & 0x38) == 0x10;
}

// Direct calls take 5 bytes, indirect ones 2, 3, 6 or 7 (Intel SDM, volume 2, "CALL").
static bool is_behind_a_call(uintptr_t address)
{
    uint8_t code[7];
    if (crash_read_memory(address - sizeof code, code, sizeof code) != 0) {
        return false;
    }
    const bool call = code[2] == 0xe8 || is_indirect_call(code) || is_indirect_call(code + 1) ||
                      is_indirect_call(code + 4) || is_indirect_call(code + 5);
    return call && crash_is_code(address) != 0;
}

static uintptr_t find_return_address(uintptr_t sp)
{
    uintptr_t words[WORDS_PER_READ];
    uintptr_t at = sp;
    while (at - sp < SEARCH_BYTES) {
        // Ever shorter pieces at the end of what is readable; none shorter than a word.
        uint32_t count = WORDS_PER_READ;
        while (count > 0 && crash_read_memory(at, words, count * sizeof *words) != 0) {
            count /= 2;
        }
        if (count == 0) {
            return 0;
        }
        for (uint32_t i = 0; i < count; i++) {
            if (is_behind_a_call(words[i])) {
                return words[i];
            }
        }
        at += count * sizeof *words;
    }
    return 0;
}

void crash_read_context(const void *signal_context, struct crash_context *context)
{
    const mcontext_t *machine = &((const ucontext_t *)signal_context)->uc_mcontext;
    *context = {};
    for (uint32_t i = 0; i < NUMBERED; i++) {
        context->registers[i] = (uintptr_t)machine->gregs[IN_ORDER[i]];
    }
    context->pc = (uintptr_t)machine->gregs[PROGRAM_COUNTER];
    context->sp = context->registers[STACK_POINTER];
    context->ra = find_return_address(context->sp);
    context->registers[NUMBERED] = context->pc;
    context->registers[NUMBERED + 1] = context->ra;
}
