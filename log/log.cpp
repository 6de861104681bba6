#include "log/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

uint32_t tu_trace_level = 4;
uint32_t tu_facility = 0;
uint32_t tu_trace_mask = 0xFFFFFFFFu;
uint32_t tu_event_level = 5;
uint32_t tu_event_facility = 0x88;
__thread char tu_tmpbuf[TU_TMPBUF_SIZE];

void pelkin_set_trace_level(uint32_t level)
{
    __atomic_store_n(&tu_trace_level, level, __ATOMIC_RELAXED);
}

void pelkin_set_fltlog(uint32_t on)
{
    __atomic_store_n(&tu_pelkin_fltlog, on, __ATOMIC_RELAXED);
}

static const uint32_t DAEMON_MODEL = 1;

// What stands in the line between "name():" and the newline, or the cut, is what the text alone
// would have given.
static void copy_from_line(const char *line, size_t length, const char *name)
{
    const size_t before = strlen(name) + sizeof "():" - 1;
    const size_t text = length > before ? length - before - 1 : 0;
    const size_t kept = text < sizeof tu_tmpbuf ? text : sizeof tu_tmpbuf - 1;
    memcpy(tu_tmpbuf, line + before, kept);
    tu_tmpbuf[kept] = '\0';
}

// Formats once for both. On its own, as the record is more than a page of stack, which a statement
// below the level is not to touch.
static void print_line(uint32_t base_level, const char *line, va_list arguments)
    __attribute__((format(printf, 2, 0), noinline));
static void print_line(uint32_t base_level, const char *line, va_list arguments)
{
    struct smart_tty_msg record;
    va_list name;
    va_copy(name, arguments);
    const size_t length = smart_tty_format(&record, line, arguments);
    if (pelkin_log_copied() != 0) {
        copy_from_line(record.text, length, va_arg(name, const char *));
    }
    va_end(name);
    smart_tty_send(&pelkin_ttylog_ctrl, DAEMON_MODEL,
                   SMART_TTY_FACILITY | pelkin_log_effective_level(base_level), &record, length);
}

void pelkin_log_statement(uint32_t base_level, const char *text, const char *line, ...)
{
    va_list arguments;
    va_start(arguments, line);
    if (pelkin_log_printed(base_level) != 0) {
        print_line(base_level, line, arguments);
    } else if (pelkin_log_copied() != 0) {
        (void)va_arg(arguments, const char *); // the function's name, which only the line shows
        vsnprintf(tu_tmpbuf, sizeof tu_tmpbuf, text, arguments);
    }
    va_end(arguments);
}
