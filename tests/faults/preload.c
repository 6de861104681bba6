/* Faults that no system call shows, for the running daemon under LD_PRELOAD (scripts/faults): the
 * n-th memory allocation fails, the wall clock jumps. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "tests/faults/fault_control.h"

static struct fault_control *control;

/* The C library's own, by the names that it keeps for programs that replace the public ones. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

__attribute__((constructor)) static void map_control(void)
{
    const char *path = getenv("PELKIN_FAULT_CONTROL");
    const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void *mapped = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)close(fd);
    control = mapped == MAP_FAILED ? NULL : mapped;
}

static int32_t load(const int32_t *word)
{
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

static int fails(void)
{
    if (control == NULL) {
        return 0;
    }
    const int32_t number = __atomic_add_fetch(&control->made, 1, __ATOMIC_SEQ_CST);
    const int32_t first = load(&control->first_failing);
    if (first == 0 || number < first || number - first >= load(&control->failing)) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size)
{
    return fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return fails() ? NULL : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    return fails() ? NULL : __libc_realloc(block, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    *block = fails() ? NULL : __libc_memalign(alignment, size);
    return *block == NULL ? ENOMEM : 0;
}

time_t time(time_t *stored)
{
    struct timespec now = {0};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const time_t shown = now.tv_sec + (control == NULL ? 0 : load(&control->clock_offset_s));
    if (stored != NULL) {
        *stored = shown;
    }
    return shown;
}
