/* The snapshot of the system's Unix-domain sockets that goes with a crash dump. */
#ifndef PELKIN_CRASH_SNAPSHOT_H
#define PELKIN_CRASH_SNAPSHOT_H

#ifdef __cplusplus
extern "C" {
#endif

/* For both of the snapshot's commands together. */
#define CRASH_SNAPSHOT_MILLISECONDS 5000

/*
 * Writes the date and the list of sockets to "DUMP_FILE.unix_zel" by two shell commands. Returns
 * when they have ended, or, after killing what still runs, when their time is up. Safe in a signal
 * handler: the child is a bare copy of the process in which no fork handler has run, and it does
 * nothing but start the shell.
 */
void crash_take_snapshot(const char *dump_file);

#ifdef __cplusplus
}
#endif
#endif
