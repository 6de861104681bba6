#include "platform/pipe_capacity.h"

#include <errno.h>
#include <fcntl.h>

// Not every C library names the question (fcntl.h of the kernel, F_LINUX_SPECIFIC_BASE + 8).
#ifndef F_GETPIPE_SZ
#define F_GETPIPE_SZ 1032
#endif

int32_t pipe_capacity(int32_t fd)
{
    const int saved_errno = errno;
    const int capacity = fcntl(fd, F_GETPIPE_SZ);
    errno = saved_errno;
    return capacity > 0 ? capacity : PIPE_CAPACITY_UNASKED;
}
