#include "platform/pipe_capacity.h"

#include <errno.h>
#include <fcntl.h>

// Not every C library names these (linux/fcntl.h, F_LINUX_SPECIFIC_BASE + 7 and + 8).
#ifndef F_GETPIPE_SZ
#define F_SETPIPE_SZ 1031
#define F_GETPIPE_SZ 1032
#endif

int32_t pipe_capacity(int32_t fd)
{
    const int saved_errno = errno;
    const int capacity = fcntl(fd, F_GETPIPE_SZ);
    errno = saved_errno;
    return capacity > 0 ? capacity : PIPE_CAPACITY_UNASKED;
}

int32_t pipe_enlarge(int32_t fd, int32_t capacity)
{
    return fcntl(fd, F_SETPIPE_SZ, capacity) < 0 ? -1 : 0;
}
