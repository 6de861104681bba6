/*
 * What scripts/device loads into the daemon on the emulated machine:
 *
 * A request for the host "fault": the worker faults with a known pattern in its registers.
 *
 * PELKIN_OLD_PIPES in the environment names a file: pipes have no size to ask for or set, as before
 * Linux 2.6.35. The first that is refused makes the file.
 *
 * PELKIN_HOLD names a path: while it exists, the main thread stays in its next recvfrom().
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

/*
 * $N holds N times 0x01010101, LO 0x12345678, HI 0x89abcdef; SP and RA are real, and the kernel has
 * $26 and $27 for itself. The word at the stack pointer names the caller's frame, above its return
 * address.
 */
void fault_caller(void);
__asm__(".text\n.set push\n.set noat\n.set noreorder\n"
        ".globl fault_registers\n.type fault_registers, @function\n"
        "fault_registers:\n"
        "addiu $8, $29, 32\n sw $8, 0($29)\n"
        "li $8, 0x12345678\n mtlo $8\n li $8, 0x89abcdef\n mthi $8\n"
        ".irp n, 1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,28,30\n"
        "li $\\n, 0x01010101 * \\n\n"
        ".endr\n"
        "sw $0, 4($0)\n"
        ".size fault_registers, . - fault_registers\n"
        ".globl fault_caller\n.type fault_caller, @function\n"
        "fault_caller:\n"
        "addiu $29, $29, -32\n sw $31, 28($29)\n bal fault_registers\n nop\n nop\n"
        ".size fault_caller, . - fault_caller\n.set pop\n");

int gethostbyname2_r(const char *host, int family, struct hostent *entry, char *buffer, size_t size,
                     struct hostent **found, int *error)
{
    int (*next)(const char *, int, struct hostent *, char *, size_t, struct hostent **, int *);
    *(void **)&next = dlsym(RTLD_NEXT, "gethostbyname2_r");
    if (strcmp(host, "fault") == 0) {
        fault_caller();
    }
    return next(host, family, entry, buffer, size, found, error);
}

int fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    const char *refused = getenv("PELKIN_OLD_PIPES");
    if (refused != NULL && (command == F_GETPIPE_SZ || command == F_SETPIPE_SZ)) {
        close(open(refused, O_WRONLY | O_CREAT, 0600));
        errno = EINVAL;
        return -1;
    }
    return (int)syscall(SYS_fcntl64, fd, command, argument);
}

/* The other names by which programs call it, with 64-bit times and without large files. */
int fcntl(int fd, int command, ...) __attribute__((alias("fcntl64")));
int __fcntl_time64(int fd, int command, ...) __attribute__((alias("fcntl64")));

ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, struct sockaddr *from,
                 socklen_t *from_size)
{
    const char *hold = getenv("PELKIN_HOLD");
    while (hold != NULL && syscall(SYS_gettid) == getpid() && access(hold, F_OK) == 0) {
        usleep(100000);
    }
    return syscall(SYS_recvfrom, fd, buffer, size, flags, from, from_size);
}
