#include "log/log.h"

#include <stdarg.h>
#include <stdio.h>

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

void pelkin_log_statement(uint32_t base_level, const char *text, const char *line, ...)
{
    va_list arguments;
    if (pelkin_log_copied() != 0) {
        va_start(arguments, line);
        (void)va_arg(arguments, const char *); // the function's name, which only the line shows
        (void)vsnprintf(tu_tmpbuf, sizeof tu_tmpbuf, text, arguments);
        va_end(arguments);
    }
    if (pelkin_log_printed(base_level) != 0) {
        va_start(arguments, line);
        smart_tty_vprint(&pelkin_ttylog_ctrl, DAEMON_MODEL,
                         SMART_TTY_FACILITY | pelkin_log_effective_level(base_level), line,
                         arguments);
        va_end(arguments);
    }
}
