/*
 * The crash handler of a daemon: a fatal signal on any thread appends a dump to the daemon's dump
 * file, takes a snapshot of the system's sockets beside it, and ends the process with status 255.
 * What the dump says is crash/dump_report.h's business; threads other than the main one call
 * crash/signal_stack.h's functions.
 */
#ifndef PELKIN_CRASH_CRASHDUMP_H
#define PELKIN_CRASH_CRASHDUMP_H

#include <signal.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CRASHDUMP_DIRECTORY "/etc/quorvane/dump"

/* Exit statuses. */
#define CRASHDUMP_EXIT 255
#define CRASHDUMP_EXIT_NO_FILE 37

/*
 * Makes the dump directory, moves an earlier dump aside (crash/dump_rotation.h), prepares core
 * dumps (crash/core_setup.h), gives the calling thread a signal stack and installs the handler for
 * SIGSEGV, SIGFPE, SIGPIPE and SIGBUS. `name` is the daemon's name or path; of what follows the
 * last "/", 99 characters count; null counts as "unknown". Once, first of all, on the main thread.
 * Ends the process with CRASHDUMP_EXIT when the directory cannot be made, or with a status of the
 * rotation.
 */
void crashdump_init(const char *name);

/*
 * The handler, for sigaction() with SA_SIGINFO. Any thread; does not return. Ends the process with
 * CRASHDUMP_EXIT, or with CRASHDUMP_EXIT_NO_FILE when the dump file cannot be opened. Of threads
 * that fault at the same time one after the other writes its dump, and the first one ends the
 * process for all.
 */
void crashdump_handler(int signal_number, siginfo_t *info, void *context);

/*
 * Has `callback` called, on the thread that crashed, once the dump is on storage. It must be safe
 * in a signal handler. Before other threads start; tells on standard output.
 */
void crashdump_register_usrcb(void (*callback)(void));

/* Gives the four signals their default actions back. Any thread, also in a signal handler. */
void crashdump_restore_default(void);

/* Makes the name of `base`'s dump file the current one and returns it; not to be freed. At start.
 */
const char *crashdump_file_name(const char *base);

#ifdef __cplusplus
}
#endif
#endif
