/*
 * The logging convention of the daemon: PELKIN_LOG_ERROR("text %d", number) and its siblings. A
 * statement's text is first copied into the filter-log buffer when that switch is on, whatever the
 * level; then, when its effective level is at most the trace level, the line "function():text\n"
 * goes to the module's log channel (log/smart_tty.h). Any thread, at any time.
 */
#ifndef PELKIN_LOG_LOG_H
#define PELKIN_LOG_LOG_H

#include <stdint.h>

#include "log/smart_tty.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TU_TMPBUF_SIZE 1024

/* Base levels, as in syslog (RFC 5424, 6.2.1). */
#define TU_LEVEL_ERROR 3u
#define TU_LEVEL_WARNING 4u
#define TU_LEVEL_NOTICE 5u
#define TU_LEVEL_INFO 6u
#define TU_LEVEL_DEBUG 7u

/*
 * Settings of the channel. Plain words, written by the main thread and read by all; read and write
 * them with the relaxed atomic built-ins, as the macros below do.
 */
extern uint32_t tu_trace_level;    /* least important level that is printed; compared unsigned */
extern uint32_t tu_facility;       /* bits that make every message less important */
extern uint32_t tu_pelkin_fltlog;  /* the daemon's filter-log switch */
extern uint32_t tu_trace_mask;     /* for other modules; not read here */
extern uint32_t tu_event_level;    /* for other modules; not read here */
extern uint32_t tu_event_facility; /* for other modules; not read here */

/* The filter-log copy of this thread's latest message, NUL-terminated. */
extern __thread char tu_tmpbuf[TU_TMPBUF_SIZE];

/* Set the trace level and the filter-log switch. Main thread. */
void pelkin_set_trace_level(uint32_t level);
void pelkin_set_fltlog(uint32_t on);

/* The daemon's own control record; registered by log/ttylog_modules.h. */
extern struct smart_tty_ctrl pelkin_ttylog_ctrl;

/*
 * Carries out one statement: `line` is the format of the printed line and takes the function's name
 * first, `text` the same without "%s():" and the newline. For the macros below.
 */
void pelkin_log_statement(uint32_t base_level, const char *text, const char *line, ...)
    __attribute__((format(printf, 3, 4)));

/* The level that counts: facility bits can only make a message less important. */
static inline uint32_t pelkin_log_effective_level(uint32_t base_level)
{
    return base_level | (__atomic_load_n(&tu_facility, __ATOMIC_RELAXED) & (7u - base_level));
}

/* Whether a statement of this base level is printed now. */
static inline int pelkin_log_printed(uint32_t base_level)
{
    return pelkin_log_effective_level(base_level) <=
           __atomic_load_n(&tu_trace_level, __ATOMIC_RELAXED);
}

static inline int pelkin_log_copied(void)
{
    return __atomic_load_n(&tu_pelkin_fltlog, __ATOMIC_RELAXED) != 0;
}

#ifdef __cplusplus
}

#define PELKIN_LOG_STATEMENT_(condition, base_level, speaker, text, ...)                           \
    do {                                                                                           \
        if (condition) {                                                                           \
            pelkin_log_statement(base_level, text, "%s():" text "\n",                              \
                                 speaker __VA_OPT__(, ) __VA_ARGS__);                              \
        }                                                                                          \
    } while (0)

#define PELKIN_LOG_(base_level, ...)                                                               \
    PELKIN_LOG_STATEMENT_(pelkin_log_copied() || pelkin_log_printed(base_level), base_level,       \
                          __VA_ARGS__)

/* A message format (a literal) and its arguments. The line names the function that it stands in. */
#define PELKIN_LOG_ERROR(...) PELKIN_LOG_(TU_LEVEL_ERROR, __func__, __VA_ARGS__)
#define PELKIN_LOG_WARNING(...) PELKIN_LOG_(TU_LEVEL_WARNING, __func__, __VA_ARGS__)
#define PELKIN_LOG_NOTICE(...) PELKIN_LOG_(TU_LEVEL_NOTICE, __func__, __VA_ARGS__)
#define PELKIN_LOG_INFO(...) PELKIN_LOG_(TU_LEVEL_INFO, __func__, __VA_ARGS__)
#define PELKIN_LOG_DEBUG(...) PELKIN_LOG_(TU_LEVEL_DEBUG, __func__, __VA_ARGS__)

/*
 * For a statement in a helper: the line names the operation that the helper works for, which is
 * what readers of the log know. `level` is a word of the above, `speaker` the operation's name:
 * PELKIN_LOG_AS("pelkin_send_task", ERROR, "text %d", number).
 */
#define PELKIN_LOG_AS(speaker, level, ...) PELKIN_LOG_(TU_LEVEL_##level, speaker, __VA_ARGS__)

/*
 * For a statement on the road of every request that is always followed by another one of the same
 * thread, with no wait in between: its filter-log copy would be replaced before anyone could look
 * at it, so it is not made. The line is printed as any other.
 */
#define PELKIN_LOG_DEBUG_SUPERSEDED(...) PELKIN_LOG_SUPERSEDED_AS(__func__, __VA_ARGS__)
#define PELKIN_LOG_SUPERSEDED_AS(speaker, ...)                                                     \
    PELKIN_LOG_STATEMENT_(pelkin_log_printed(TU_LEVEL_DEBUG), TU_LEVEL_DEBUG, speaker, __VA_ARGS__)
#endif
#endif
