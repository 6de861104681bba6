#include "crash/signal_stack.h"

#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

// The handler takes some 5 KiB and a signal frame up to 11 KiB (x86-64 with AMX).
static const size_t STACK_SIZE = 65536;

// Each thread's own: the mapping (null: none), and the signal stack that was there before it.
static __thread char *mapping;
static __thread stack_t previous;

static size_t guard_size(void)
{
    return (size_t)sysconf(_SC_PAGESIZE);
}

int32_t crashdump_thread_init(void)
{
    if (mapping != nullptr) {
        return 0;
    }
    const size_t guard = guard_size();
    void *made = mmap(nullptr, guard + STACK_SIZE, PROT_NONE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (made == MAP_FAILED) {
        return -1;
    }
    char *lowest = (char *)made + guard;
    stack_t stack = {}; // its fields come in another order on MIPS
    stack.ss_sp = lowest;
    stack.ss_size = STACK_SIZE;
    if (mprotect(lowest, STACK_SIZE, PROT_READ | PROT_WRITE) != 0 ||
        sigaltstack(&stack, &previous) != 0) {
        const int error = errno;
        (void)munmap(made, guard + STACK_SIZE);
        errno = error;
        return -1;
    }
    mapping = (char *)made;
    return 0;
}

void crashdump_thread_exit(void)
{
    if (mapping == nullptr) {
        return;
    }
    (void)sigaltstack(&previous, nullptr);
    (void)munmap(mapping, guard_size() + STACK_SIZE);
    mapping = nullptr;
}
