/*
 * The text of a crash dump. Safe in a signal handler: nothing here allocates, locks or trusts the
 * memory that the crashed context points to.
 */
#ifndef PELKIN_CRASH_DUMP_REPORT_H
#define PELKIN_CRASH_DUMP_REPORT_H

#include <signal.h>
#include <stdint.h>

#include "crash/context.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a dump tells. The pointers belong to the caller. */
struct crash_report {
    const char *process_name;
    int64_t time;  /* seconds since 1970 */
    int32_t count; /* dumps that this process began before */
    int32_t signal_number;
    const siginfo_t *info;
    const struct crash_context *context;
};

/*
 * Writes the whole dump to the descriptor `file` and brings it to storage, a first time when the
 * stack is written. Errors of the descriptor cost text, nothing else.
 */
void crash_write_report(int32_t file, const struct crash_report *report);

/*
 * Writes one entry of a backtrace, numbered `index`, to the descriptor `file`. An address in no
 * loaded object is left out.
 */
void crashdump_print_frame(int32_t file, uintptr_t address, int32_t index);

#ifdef __cplusplus
}
#endif
#endif
