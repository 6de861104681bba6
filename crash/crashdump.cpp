/*
 * The way of a crash. The handler runs on the thread that faulted, possibly inside the heap, the
 * log or the loader: on its way to the end of the dump it takes no lock of the C library, allocates
 * nothing and uses no stream. Its only wait is for its turn, a flag of its own: threads that fault
 * at the same time write their dumps one after the other. A thread holds the turn while it writes
 * and passes it on when the dump is on storage. The first one through then calls the user's
 * callback, takes the snapshot and ends the process, for which it takes the turn once more, so that
 * it never ends in the middle of another thread's dump; the others wait for the end. A fault inside
 * the handler meets a blocked signal, and the kernel ends the process.
 */
#include "crash/crashdump.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "crash/context.h"
#include "crash/core_setup.h"
#include "crash/dump_report.h"
#include "crash/dump_rotation.h"
#include "crash/dump_text.h"
#include "crash/signal_stack.h"
#include "crash/snapshot.h"
#include "crash/symbols.h"
#include "crash/wall_clock.h"

static const size_t BASE_NAME_SIZE = 100;
static const size_t FILE_NAME_SIZE = 200;
static const int32_t GENERATIONS = 4;
static const int TURN_MILLISECONDS = 1;
// From this many earlier dumps on, a further fault is the kernel's.
static const int32_t DUMPS_BEFORE_DEFAULT = 2;

struct fatal_signal {
    int number;
    const char *install_error;
    const char *restore_error;
};

static const struct fatal_signal fatal_signals[] = {
    {SIGSEGV, "sigaction SIGSEGV", "sigaction SIGSEGV SIG_DFL"},
    {SIGFPE, "sigaction SIGFPE", "sigaction SIGFPE SIG_DEF"},
    {SIGPIPE, "sigaction SIGPIPE", "sigaction SIGPIPE SIG_DFL"},
    {SIGBUS, "sigaction SIGBUS", "sigaction SIGBUS SIG_DFL"},
};

// Written before other threads start, then only read.
static char process_name[BASE_NAME_SIZE] = "unknown";
static char name_buffer[FILE_NAME_SIZE];
static const char *dump_file_name;
static void (*user_callback)(void);

static uint32_t turn_taken;    // atomic
static uint32_t end_has_begun; // atomic
static int32_t entry_count;    // by the holder of the turn

static void take_turn(void)
{
    while (__atomic_exchange_n(&turn_taken, 1, __ATOMIC_ACQUIRE) != 0) {
        (void)poll(nullptr, 0, TURN_MILLISECONDS);
    }
}

static void pass_turn(void)
{
    __atomic_store_n(&turn_taken, 0, __ATOMIC_RELEASE);
}

// The system call itself: a sanitizer's _exit() first flushes the streams.
[[noreturn]] static void end_at_once(int status)
{
    for (;;) {
        (void)syscall(SYS_exit_group, status);
    }
}

// As perror() prints it.
static void print_error(const char *what, int32_t error)
{
    char bytes[DUMP_TEXT_SIZE];
    struct dump_text out = {.bytes = bytes, .size = sizeof bytes, .used = 0, .fd = STDERR_FILENO};
    dump_put(&out, what);
    dump_put(&out, ": ");
    dump_put_error(&out, error);
    dump_put(&out, "\n");
    dump_flush_or_drop(&out);
}

void crashdump_restore_default(void)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    (void)sigemptyset(&action.sa_mask);
    for (const struct fatal_signal &fatal : fatal_signals) {
        if (sigaction(fatal.number, &action, nullptr) != 0) {
            print_error(fatal.restore_error, errno);
            return;
        }
    }
}

void crashdump_register_usrcb(void (*callback)(void))
{
    user_callback = callback;
    printf("%s registers crashdump usrcb\n", process_name);
    (void)fflush(stdout); // a crash ends the process without it
}

const char *crashdump_file_name(const char *base)
{
    (void)snprintf(name_buffer, sizeof name_buffer, CRASHDUMP_DIRECTORY "/%.*s.dump",
                   (int)BASE_NAME_SIZE - 1, base);
    return name_buffer;
}

static void announce_dump_file(void)
{
    char bytes[DUMP_TEXT_SIZE];
    struct dump_text out = {.bytes = bytes, .size = sizeof bytes, .used = 0, .fd = STDOUT_FILENO};
    dump_put(&out, "Creating dumpfile: ");
    dump_put(&out, dump_file_name);
    dump_put(&out, "\n");
    dump_flush_or_drop(&out);
}

// As err() does, but without its streams and exit handlers.
[[noreturn]] static void end_without_dump(int32_t error)
{
    char bytes[DUMP_TEXT_SIZE];
    struct dump_text out = {.bytes = bytes, .size = sizeof bytes, .used = 0, .fd = STDERR_FILENO};
    dump_put(&out, program_invocation_short_name);
    dump_put(&out, ": Could not open dump file ");
    dump_put(&out, dump_file_name);
    dump_put(&out, " : ");
    dump_put_error(&out, error);
    dump_put(&out, "\n");
    dump_flush_or_drop(&out);
    end_at_once(CRASHDUMP_EXIT_NO_FILE);
}

static int32_t open_output(void)
{
    if (dump_file_name == nullptr) {
        return STDERR_FILENO;
    }
    announce_dump_file();
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    int fd = open(dump_file_name, flags, 0666);
    if (fd < 0 && errno == EMFILE) {
        // The crash may come of that very shortage, and standard input has no more use.
        (void)close(STDIN_FILENO);
        fd = open(dump_file_name, flags, 0666);
    }
    if (fd < 0) {
        end_without_dump(errno);
    }
    return fd;
}

static void write_dump(int32_t file, int32_t count, int signal_number, const siginfo_t *info,
                       const void *signal_context)
{
    struct crash_context context;
    crash_read_context(signal_context, &context);
    const struct crash_report report = {.process_name = process_name,
                                        .time = crash_wall_clock(),
                                        .count = count,
                                        .signal_number = signal_number,
                                        .info = info,
                                        .context = &context};
    crash_write_report(file, &report);
}

[[noreturn]] static void end_process(void)
{
    while (__atomic_exchange_n(&end_has_begun, 1, __ATOMIC_ACQ_REL) != 0) {
        (void)pause();
    }
    if (user_callback != nullptr) {
        user_callback();
    }
    if (dump_file_name != nullptr) {
        crash_take_snapshot(dump_file_name);
    }
    take_turn();
    end_at_once(CRASHDUMP_EXIT);
}

void crashdump_handler(int signal_number, siginfo_t *info, void *context)
{
    take_turn();
    const int32_t count = entry_count++;
    if (count > DUMPS_BEFORE_DEFAULT) {
        crashdump_restore_default();
    }
    const int32_t file = open_output();
    write_dump(file, count, signal_number, info, context);
    if (file != STDERR_FILENO) {
        (void)close(file);
    }
    pass_turn();
    end_process();
}

static void make_dump_directory(void)
{
    if (mkdir(CRASHDUMP_DIRECTORY, 0777) != 0 && errno != EEXIST) {
        perror("mkdir failed");
        exit(CRASHDUMP_EXIT); // NOLINT(concurrency-mt-unsafe): there is only one thread yet
    }
}

static void install_handler(void)
{
    struct sigaction action = {};
    action.sa_sigaction = crashdump_handler;
    // On the thread's signal stack, where it has one: its own may be what is broken.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    (void)sigemptyset(&action.sa_mask);
    for (const struct fatal_signal &fatal : fatal_signals) {
        (void)sigaddset(&action.sa_mask, fatal.number);
    }
    (void)sigaddset(&action.sa_mask, SIGINT);
    (void)sigaddset(&action.sa_mask, SIGQUIT);
    for (const struct fatal_signal &fatal : fatal_signals) {
        if (sigaction(fatal.number, &action, nullptr) != 0) {
            perror(fatal.install_error);
            return;
        }
    }
}

void crashdump_init(const char *name)
{
    const char *path = name == nullptr ? "unknown" : name;
    const char *slash = strrchr(path, '/');
    (void)snprintf(process_name, sizeof process_name, "%s", slash == nullptr ? path : slash + 1);
    make_dump_directory();
    dump_file_name = crashdump_file_name(process_name);
    if (crashdump_file_exists(dump_file_name) != 0) {
        inc_dumpfile_ext(dump_file_name, 1, GENERATIONS);
    }
    core_dump_setup(process_name);
    crash_symbols_init();
    crash_renew_zone_offset(crash_wall_clock());
    (void)crashdump_thread_init();
    install_handler();
}
