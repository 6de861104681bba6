/*
 * The daemon that crashes: crash_helper MODE [NAME]. It installs the crash handler as daemon NAME
 * ("/usr/sbin/crashing" by default) and then does what MODE says, for real. It never ends by itself
 * with the handler's status: exit handlers, fork handlers and a fault that is survived have others.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "crash/crashdump.h"
#include "crash/signal_stack.h"

// What a sanitizer would report instead of letting it happen.
#define REAL_FAULT __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

static const int STATUS_SURVIVED = 96;
static const int STATUS_EXIT_HANDLER = 97;
static const int STATUS_FORK_HANDLER = 98;
static const int STATUS_BAD_USE = 99;
static const char *const CALLBACK_FILE = "/tmp/crash_callback";

static const char *dump_file;
static pthread_barrier_t barrier;

// Linked in place of the C library's (-Wl,--wrap): one allocation or signal fails on demand, and
// dumps brought to storage are counted.
static int failing_name_buffer = -1;
static int failing_signal = -1;
static int syncs;

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *old);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old);
int __real_fsync(int fd);
int __wrap_fsync(int fd);

void *__wrap_malloc(size_t size)
{
    static const size_t NAME_BUFFER = 210;
    if (size == NAME_BUFFER && failing_name_buffer-- == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    if (number == failing_signal) {
        errno = EPERM;
        return -1;
    }
    return __real_sigaction(number, action, old);
}

int __wrap_fsync(int fd)
{
    syncs++;
    return __real_fsync(fd);
}

// NOLINTBEGIN(clang-analyzer-*,performance-no-int-to-ptr): faults are what these are for
REAL_FAULT void fault_null_write()
{
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
}

REAL_FAULT void fault_read_only_write()
{
    void *page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *(volatile char *)page = 1;
}

REAL_FAULT void fault_division()
{
    volatile int dividend = 7;
    volatile int zero = 0;
    volatile int quotient = dividend / zero;
    (void)quotient;
}

REAL_FAULT void fault_truncated_mapping()
{
    const int fd = open("/tmp/crash_mapping", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    (void)!ftruncate(fd, 4096);
    void *page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    (void)!ftruncate(fd, 0);
    (void)*(volatile char *)page;
}

REAL_FAULT void fault_wild_jump()
{
    void (*volatile wild)() = (void (*)())0x10feed10;
    wild();
    dump_file = nullptr; // so that the call above is a call
}

REAL_FAULT void fault_stack_pointer()
{
#if defined(__x86_64__)
    __asm__ volatile("mov $0x5afe10, %%rsp\n\tpush %%rax" ::: "memory");
#elif defined(__aarch64__)
    __asm__ volatile("mov sp, %0\n\tstr x0, [sp]" ::"r"(0x5afe10L) : "memory");
#elif defined(__arm__)
    __asm__ volatile("mov sp, %0\n\tstr r0, [sp]" ::"r"(0x5afe10L) : "memory");
#else
    __asm__ volatile("move $29, %0\n\tsw $2, 0($29)" ::"r"(0x5afe10L) : "memory");
#endif
}

REAL_FAULT int fault_full_stack(int depth)
{
    volatile char frame[4096];
    frame[0] = (char)depth;
    return depth < 0 ? 0 : fault_full_stack(depth + 1) + frame[0];
}

// A free block whose neighbour pointer was overwritten: the next malloc() that looks for room
// follows it with the heap's lock held.
REAL_FAULT void fault_in_malloc()
{
    void *volatile block = malloc(4000);
    void *volatile fence = malloc(4000);
    free(block);
    ((void *volatile *)block)[1] = (void *)0x10feed10;
    void *volatile more = malloc(8000);
    (void)more;
    (void)fence;
}

REAL_FAULT void fault_in_log()
{
    openlog((const char *)0x10, LOG_PID, LOG_LOCAL2);
    syslog(LOG_ERR, "never sent");
}

REAL_FAULT void fault_in_time_zone()
{
    const time_t now = 1420532045;
    struct tm *volatile nowhere = (struct tm *)0x10;
    (void)localtime_r(&now, nowhere);
}

// NOLINTEND(clang-analyzer-*,performance-no-int-to-ptr)

} // extern "C"

static void on_thread(void *(*body)(void *), void *argument)
{
    pthread_t thread;
    if (pthread_create(&thread, nullptr, body, argument) != 0) {
        _exit(STATUS_BAD_USE);
    }
    (void)pthread_detach(thread);
}

[[noreturn]] static void wait_for_the_end()
{
    for (;;) {
        (void)pause();
    }
}

static void *wait_as_a_thread(void *)
{
    wait_for_the_end();
}

static void *fault_as_a_worker(void *fault)
{
    (void)crashdump_thread_init();
    ((void (*)())fault)();
    return nullptr;
}

static void *fault_with_another(void *)
{
    (void)crashdump_thread_init();
    (void)pthread_barrier_wait(&barrier);
    fault_null_write();
    return nullptr;
}

static void fault_in_malloc_among_threads()
{
    on_thread(wait_as_a_thread, nullptr); // a process of one thread does not lock its heap
    fault_in_malloc();
}

static void overflow_stack()
{
    (void)fault_full_stack(0);
}

static void fault_in_log_on_worker()
{
    on_thread(fault_as_a_worker, (void *)fault_in_log);
    wait_for_the_end();
}

static void overflow_worker_stack()
{
    on_thread(fault_as_a_worker, (void *)overflow_stack);
    wait_for_the_end();
}

static void *hold_standard_output(void *)
{
    flockfile(stdout);
    (void)pthread_barrier_wait(&barrier);
    wait_for_the_end();
}

static void fault_while_output_is_held()
{
    (void)pthread_barrier_init(&barrier, nullptr, 2);
    on_thread(hold_standard_output, nullptr);
    (void)pthread_barrier_wait(&barrier);
    fault_null_write();
}

static void *load_from_pipe(void *path)
{
    (void)dlopen((const char *)path, RTLD_NOW);
    return nullptr;
}

// The loader opens the pipe with its lock held and then waits for content.
static void fault_while_loader_is_held()
{
    static char path[] = "/tmp/crash_pipe";
    (void)mkfifo(path, 0600);
    on_thread(load_from_pipe, path);
    (void)open(path, O_WRONLY | O_CLOEXEC);
    fault_null_write();
}

static void fault_on_two_threads()
{
    (void)pthread_barrier_init(&barrier, nullptr, 2);
    on_thread(fault_with_another, nullptr);
    (void)fault_with_another(nullptr);
}

static int count_dumps()
{
    static char text[1 << 16];
    const int fd = open(dump_file, O_RDONLY | O_CLOEXEC);
    const ssize_t got = read(fd, text, sizeof text - 1);
    (void)close(fd);
    text[got > 0 ? got : 0] = '\0';
    int count = 0;
    for (const char *at = text; (at = strstr(at, "# End of Crash dump\n")) != nullptr; at++) {
        count++;
    }
    return count;
}

static void report_callback()
{
    const bool snapshot = access("/etc/quorvane/dump/crashing.dump.unix_zel", F_OK) == 0;
    const int fd = open(CALLBACK_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    (void)dprintf(fd, "dumps=%d syncs=%d snapshot=%d", count_dumps(), syncs, snapshot);
}

static void fault_with_callback()
{
    crashdump_register_usrcb(report_callback);
    (void)fflush(stdout);
    fault_null_write();
}

static int threads_let_go; // atomic

static void *fault_when_let_go(void *earlier_dumps)
{
    (void)crashdump_thread_init();
    while (__atomic_load_n(&threads_let_go, __ATOMIC_ACQUIRE) < *(const int *)earlier_dumps) {
        (void)usleep(1000);
    }
    fault_null_write();
    return nullptr;
}

// Once the first dump is written: three more threads crash, each when the one before has its dump,
// and then a fourth.
static void crash_more_threads()
{
    for (int crashes = 1; crashes <= 4; crashes++) {
        while (count_dumps() < crashes) {
            (void)usleep(1000);
        }
        __atomic_store_n(&threads_let_go, crashes, __ATOMIC_RELEASE);
    }
    wait_for_the_end();
}

static void fault_on_five_threads()
{
    static int earlier_dumps[] = {1, 2, 3, 4};
    for (int &count : earlier_dumps) {
        on_thread(fault_when_let_go, &count);
    }
    crashdump_register_usrcb(crash_more_threads);
    fault_null_write();
}

static void fault_without_dump_file()
{
    (void)mkdir(dump_file, 0700);
    fault_null_write();
}

static void fault_without_descriptors()
{
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    fault_null_write();
}

static void fault_with_full_output()
{
    int ends[2];
    static char block[4096];
    if (pipe2(ends, O_CLOEXEC) != 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0) {
        _exit(STATUS_BAD_USE);
    }
    while (write(ends[1], block, sizeof block) > 0) {
    }
    (void)fcntl(ends[1], F_SETFL, 0);
    (void)dup2(ends[1], STDOUT_FILENO);
    fault_null_write();
}

static void raise_sigpipe()
{
    (void)raise(SIGPIPE);
}

static void end_normally()
{
    _exit(0);
}

static void on_exit_handler()
{
    _exit(STATUS_EXIT_HANDLER);
}

static void on_fork()
{
    _exit(STATUS_FORK_HANDLER);
}

struct mode {
    const char *name;
    void (*run)();
};

static const struct mode modes[] = {
    {"null-write", fault_null_write},
    {"read-only-write", fault_read_only_write},
    {"division", fault_division},
    {"truncated-mapping", fault_truncated_mapping},
    {"wild-jump", fault_wild_jump},
    {"stack-pointer", fault_stack_pointer},
    {"full-stack", overflow_stack},
    {"full-worker-stack", overflow_worker_stack},
    {"in-malloc", fault_in_malloc_among_threads},
    {"in-log-on-worker", fault_in_log_on_worker},
    {"in-time-zone", fault_in_time_zone},
    {"output-held", fault_while_output_is_held},
    {"loader-held", fault_while_loader_is_held},
    {"two-threads", fault_on_two_threads},
    {"five-threads", fault_on_five_threads},
    {"callback", fault_with_callback},
    {"no-dump-file", fault_without_dump_file},
    {"no-descriptors", fault_without_descriptors},
    {"full-output", fault_with_full_output},
    {"sigpipe", raise_sigpipe},
    {"end", end_normally},
};

static int number_in(const char *variable)
{
    const char *text = getenv(variable); // NOLINT(concurrency-mt-unsafe): one thread yet
    return text == nullptr ? -1 : (int)strtol(text, nullptr, 10);
}

int main(int argc, char **argv)
{
    const struct rlimit no_core = {.rlim_cur = 0, .rlim_max = 0};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    const char *name = argc > 2 ? argv[2] : "/usr/sbin/crashing";
    failing_name_buffer = number_in("FAILING_NAME_BUFFER");
    failing_signal = number_in("FAILING_SIGNAL");
    crashdump_init(name);
    const char *slash = strrchr(name, '/');
    dump_file = crashdump_file_name(slash == nullptr ? name : slash + 1);
    (void)atexit(on_exit_handler);
    (void)pthread_atfork(on_fork, nullptr, nullptr);
    for (const struct mode &mode : modes) {
        if (argc > 1 && strcmp(argv[1], mode.name) == 0) {
            mode.run();
            _exit(STATUS_SURVIVED);
        }
    }
    return STATUS_BAD_USE;
}
