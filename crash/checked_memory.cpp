#include "crash/checked_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

// A divisor of every page size: a read of aligned pieces of it never spans two pages.
static const size_t PIECE = 64;

// For kernels and C libraries that don't have the system call, and sandboxes that refuse it.
static int32_t read_memory_file(uintptr_t address, void *buffer, size_t size)
{
    const int fd = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const ssize_t got = pread(fd, buffer, size, (off_t)address);
    close(fd);
    return got == (ssize_t)size ? 0 : -1;
}

int32_t crash_read_memory(uintptr_t address, void *buffer, size_t size)
{
#ifdef SYS_process_vm_readv // called by its number: not every C library that knows it has a name
                            // for it
    const struct iovec local = {.iov_base = buffer, .iov_len = size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address out of the crashed context
    const struct iovec remote = {.iov_base = (void *)address, .iov_len = size};
    const long got = syscall(SYS_process_vm_readv, getpid(), &local, 1L, &remote, 1L, 0L);
    if (got >= 0 || (errno != ENOSYS && errno != EPERM)) {
        return got == (long)size ? 0 : -1;
    }
#endif
    return read_memory_file(address, buffer, size);
}

int32_t crash_read_text(uintptr_t address, char *text, size_t size)
{
    size_t length = 0;
    while (length < size - 1) {
        const size_t to_boundary = PIECE - (address + length) % PIECE;
        const size_t room = size - 1 - length;
        const size_t piece = to_boundary < room ? to_boundary : room;
        if (crash_read_memory(address + length, text + length, piece) != 0) {
            text[length] = '\0';
            return -1;
        }
        const size_t got = strnlen(text + length, piece);
        length += got;
        if (got < piece) {
            return 0;
        }
    }
    text[length] = '\0';
    return 0;
}
