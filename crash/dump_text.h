/*
 * The crash path's own formatter: text is collected in a buffer of the caller's and written to a
 * descriptor. No allocation, no stream, no lock: every function here may be called in a signal
 * handler, on any thread, whatever that thread was doing.
 */
#ifndef PELKIN_CRASH_DUMP_TEXT_H
#define PELKIN_CRASH_DUMP_TEXT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Takes every line of a dump but those with overlong names. */
#define DUMP_TEXT_SIZE 1024

/*
 * A text under construction. `bytes` belongs to the caller. A full buffer is written to `fd`; with
 * `fd` -1 what no longer fits is dropped.
 */
struct dump_text {
    char *bytes;
    size_t size;
    size_t used;
    int32_t fd;
};

void dump_put(struct dump_text *out, const char *text);

/* As "%*d" prints it, with `padding` to the left up to `width` characters. */
void dump_put_decimal(struct dump_text *out, int64_t value, uint32_t width, char padding);

/* Lower-case hexadecimal, zeros to the left up to `digits`; a wider value is printed whole. */
void dump_put_hex(struct dump_text *out, uint64_t value, uint32_t digits);

/* As "%p" prints it: "(nil)" or 0x and the digits. */
void dump_put_pointer(struct dump_text *out, uintptr_t value);

/* The system's text of an errno value, untranslated. */
void dump_put_error(struct dump_text *out, int32_t error);

/* Writes what is collected. A descriptor that takes no more loses the rest. */
void dump_flush(struct dump_text *out);

/* The same if the descriptor takes it at once; otherwise the text is dropped. For the standard
 * descriptors: a pipe that nobody reads must not hold up the dump. */
void dump_flush_or_drop(struct dump_text *out);

#ifdef __cplusplus
}
#endif
#endif
