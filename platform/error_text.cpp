#include "platform/error_text.h"

#include <errno.h>
#include <string.h>

static const size_t TEXT_SIZE = 128;

// strerror_r() comes in two kinds: the GNU one returns the text, which need not lie in the buffer;
// the one of POSIX fills the buffer and returns an error number. The compiler takes the fitting
// one.
[[maybe_unused]] static const char *pick(const char *text, const char *)
{
    return text;
}

[[maybe_unused]] static const char *pick(int failure, const char *buffer)
{
    return failure == 0 ? buffer : "unknown error";
}

const char *error_text(int error)
{
    static __thread char buffer[TEXT_SIZE];
    const int saved_errno = errno;
    const char *text = pick(strerror_r(error, buffer, sizeof buffer), buffer);
    errno = saved_errno;
    return text;
}
