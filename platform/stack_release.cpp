#include "platform/stack_release.h"

#include <pthread.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

void release_stack(void)
{
    pthread_attr_t attributes;
    void *lowest = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return;
    }
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);

    const uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    const uintptr_t start = ((uintptr_t)lowest + page - 1) & ~(page - 1);
    const uintptr_t end = ((uintptr_t)&attributes - STACK_KEPT) & ~(page - 1);
    if (start < end) {
        madvise((void *)start, end - start, MADV_DONTNEED); // best effort
    }
}
