#include "crash/dump_report.h"

#include <unistd.h>

#include "crash/checked_memory.h"
#include "crash/dump_text.h"
#include "crash/symbols.h"
#include "crash/wall_clock.h"

static const uintptr_t PAGE = 4096;
static const int32_t STACK_WORDS_ABOVE = 100;
static const int32_t STACK_WORDS_BELOW = 16;
static const int32_t STACK_WORD = 4;
static const int32_t ROW = 4;

static const char *const register_names[CRASH_REGISTERS] = {
    "R0  ", "AT  ", "V0  ", "V1  ", "A0  ", "A1  ", "A2  ", "A3  ", "T0  ", "T1  ", "T2  ",
    "T3  ", "T4  ", "T5  ", "T6  ", "T7  ", "S0  ", "S1  ", "S2  ", "S3  ", "S4  ", "S5  ",
    "S6  ", "S7  ", "T8  ", "T9  ", "K0  ", "K1  ", "GP  ", "SP  ", "S8  ", "RA  "};

static const char *cause_name(int32_t code)
{
    switch (code) {
    case 1:
        return "Addr map error";
    case 2:
        return "Access privilege error";
    default:
        return "Unknown";
    }
}

void crashdump_print_frame(int32_t file, uintptr_t address, int32_t index)
{
    struct crash_symbol symbol;
    if (crash_find_symbol(address, &symbol) != 0) {
        return;
    }
    char bytes[DUMP_TEXT_SIZE];
    struct dump_text out = {.bytes = bytes, .size = sizeof bytes, .used = 0, .fd = file};
    dump_put(&out, "# ");
    dump_put_decimal(&out, index, 2, ' ');
    dump_put(&out, ": ");
    dump_put_hex(&out, address, 8);
    if (symbol.name[0] != '\0') {
        dump_put(&out, " <");
        dump_put(&out, symbol.name);
        dump_put(&out, "+0x");
        dump_put_hex(&out, symbol.offset, 1);
        dump_put(&out, ">");
    }
    if (symbol.object[0] != '\0') {
        dump_put(&out, "  (");
        dump_put(&out, symbol.object);
        dump_put(&out, ")");
    }
    dump_put(&out, "\n");
    dump_flush(&out);
}

static void put_header(struct dump_text *out, const struct crash_report *report)
{
    char time[CRASH_TIME_SIZE];
    crash_put_time(report->time, time);
    dump_put(out, "# ");
    dump_put(out, report->process_name);
    dump_put(out, ", crashed at ");
    dump_put(out, time);
    dump_put(out, ", cnt=");
    dump_put_decimal(out, report->count, 0, ' ');
    dump_put(out, "\n");
}

// The return address beside the frame address that the word at the stack pointer holds; 0 when
// either cannot be read.
static uintptr_t next_return_address(uintptr_t sp)
{
    uintptr_t frame = 0;
    uintptr_t address = 0;
    if (sp == 0 || crash_read_memory(sp, &frame, sizeof frame) != 0 ||
        crash_read_memory(frame + (uintptr_t)(intptr_t)crash_return_offset, &address,
                          sizeof address) != 0) {
        return 0;
    }
    return address;
}

static void write_backtrace(struct dump_text *out, const struct crash_context *context)
{
    dump_put(out, "# Stack backtrace:\n");
    dump_flush(out);
    crashdump_print_frame(out->fd, context->pc, 1);
    if (context->ra != 0) {
        crashdump_print_frame(out->fd, context->ra, 2);
        const uintptr_t next = next_return_address(context->sp);
        if (next != 0) {
            crashdump_print_frame(out->fd, next, 3);
        }
    }
    dump_put(out, "# End of stack backtrace\n");
}

static void put_stack(struct dump_text *out, uintptr_t sp)
{
    dump_put(out, "# Stack (");
    dump_put_pointer(out, sp);
    dump_put(out, "):");
    for (int32_t i = STACK_WORDS_ABOVE; i >= -STACK_WORDS_BELOW; i--) {
        const uintptr_t address = sp + (uintptr_t)((intptr_t)i * STACK_WORD);
        uint32_t word = 0;
        if (address / PAGE != sp / PAGE || crash_read_memory(address, &word, sizeof word) != 0) {
            continue;
        }
        if (i % ROW == 0) {
            dump_put(out, "\n#  ");
            dump_put_pointer(out, address);
            dump_put(out, ":");
        }
        dump_put(out, " ");
        dump_put_hex(out, word, 8);
    }
    dump_put(out, "\n#\n");
}

static void put_crash_information(struct dump_text *out, int32_t signal_number,
                                  const siginfo_t *info)
{
    dump_put(out, "# Crash Information:\n#   Signal # = ");
    dump_put_decimal(out, signal_number, 0, ' ');
    dump_put(out, "\n#   Error #  = ");
    dump_put_decimal(out, info->si_errno, 0, ' ');
    dump_put(out, "\n#   Cause code = ");
    dump_put_decimal(out, info->si_code, 0, ' ');
    dump_put(out, " (");
    dump_put(out, cause_name(info->si_code));
    dump_put(out, ")\n#   Attempt to access addr = ");
    dump_put_pointer(out, (uintptr_t)info->si_addr);
    dump_put(out, "\n");
}

static void put_registers(struct dump_text *out, const struct crash_context *context)
{
    dump_put(out, "# General Registers: \n");
    for (int32_t i = 0; i < CRASH_REGISTERS; i++) {
        if (i % ROW == 0) {
            dump_put(out, "\n#  ");
        }
        dump_put(out, " ");
        dump_put_decimal(out, i, 2, '0');
        dump_put(out, "(");
        dump_put(out, register_names[i]);
        dump_put(out, ")=0x");
        dump_put_hex(out, context->registers[i], 8);
    }
    dump_put(out, "\n# (MDLO)=0x");
    dump_put_hex(out, context->mdlo, 8);
    dump_put(out, " (MDHI)=0x");
    dump_put_hex(out, context->mdhi, 8);
    dump_put(out, "\n");
}

void crash_write_report(int32_t file, const struct crash_report *report)
{
    char bytes[DUMP_TEXT_SIZE];
    struct dump_text out = {.bytes = bytes, .size = sizeof bytes, .used = 0, .fd = file};
    put_header(&out, report);
    write_backtrace(&out, report->context);
    put_stack(&out, report->context->sp);
    dump_flush(&out);
    (void)fsync(file);

    put_crash_information(&out, report->signal_number, report->info);
    put_registers(&out, report->context);
    dump_put(&out, "# End of Crash dump\n");
    dump_flush(&out);
    (void)fsync(file);
}
