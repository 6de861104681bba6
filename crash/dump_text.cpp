#include "crash/dump_text.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

static const size_t NUMBER_LONGEST = 40;
// Interrupted writes of one buffer after which the rest of it is given up: the process must end.
static const int INTERRUPTED_MOST = 100;

static void put_char(struct dump_text *out, char character)
{
    if (out->used == out->size && out->fd >= 0) {
        dump_flush(out);
    }
    if (out->used < out->size) {
        out->bytes[out->used++] = character;
    }
}

void dump_put(struct dump_text *out, const char *text)
{
    for (; *text != '\0'; text++) {
        put_char(out, *text);
    }
}

// Digits from the right end of a buffer; returns where they begin.
static char *digits_of(uint64_t value, uint32_t base, char *end)
{
    char *digit = end;
    do {
        *--digit = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    return digit;
}

static void put_padded(struct dump_text *out, const char *text, uint32_t width, char padding)
{
    for (size_t length = strlen(text); length < width; length++) {
        put_char(out, padding);
    }
    dump_put(out, text);
}

void dump_put_decimal(struct dump_text *out, int64_t value, uint32_t width, char padding)
{
    char text[NUMBER_LONGEST] = {};
    const uint64_t magnitude = value < 0 ? 0 - (uint64_t)value : (uint64_t)value;
    char *first = digits_of(magnitude, 10, text + sizeof text - 1);
    if (value < 0) {
        *--first = '-';
    }
    put_padded(out, first, width, padding);
}

void dump_put_hex(struct dump_text *out, uint64_t value, uint32_t digits)
{
    char text[NUMBER_LONGEST] = {};
    put_padded(out, digits_of(value, 16, text + sizeof text - 1), digits, '0');
}

void dump_put_pointer(struct dump_text *out, uintptr_t value)
{
    if (value == 0) {
        dump_put(out, "(nil)");
        return;
    }
    dump_put(out, "0x");
    dump_put_hex(out, value, 1);
}

// Null where the C library can't tell without a lock or an allocation: the GNU one translates in
// strerror(), the small ones look into a constant table.
static const char *describe(int32_t error)
{
#if !defined(__GLIBC__) || defined(__UCLIBC__)
    return strerror(error); // NOLINT(concurrency-mt-unsafe): one thread dumps at a time
#elif __GLIBC_PREREQ(2, 32)
    return strerrordesc_np(error);
#else
    (void)error;
    return nullptr;
#endif
}

void dump_put_error(struct dump_text *out, int32_t error)
{
    const char *description = describe(error);
    if (description != nullptr) {
        dump_put(out, description);
        return;
    }
    dump_put(out, "Unknown error ");
    dump_put_decimal(out, error, 0, ' ');
}

void dump_flush(struct dump_text *out)
{
    size_t done = 0;
    int interrupted = 0;
    while (done < out->used && interrupted < INTERRUPTED_MOST) {
        const ssize_t written = write(out->fd, out->bytes + done, out->used - done);
        if (written > 0) {
            done += (size_t)written;
        } else if (written < 0 && errno == EINTR) {
            interrupted++;
        } else {
            break;
        }
    }
    out->used = 0;
}

void dump_flush_or_drop(struct dump_text *out)
{
    struct pollfd ready = {.fd = out->fd, .events = POLLOUT, .revents = 0};
    if (poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0) {
        dump_flush(out);
    }
    out->used = 0;
}
