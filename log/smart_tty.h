/*
 * The log channel: a module's control record, its registration with the device's log service
 * `ttylog`, and the two ways of a message: a datagram to the service while the record is registered
 * and enabled, and always the system log. Which statements of the daemon reach it, log/log.h
 * decides.
 *
 * Threads: what prints may be called from any thread at any time. Registration, enabling and
 * unregistration belong to the main thread.
 */
#ifndef PELKIN_LOG_SMART_TTY_H
#define PELKIN_LOG_SMART_TTY_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "log/smart_tty_msg.h"
#include "log/unix_sock.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SMART_TTY_MODELS 32 /* entries of a record's model table */
/* Characters of a model name that takes part in registration. */
#define SMART_TTY_MODEL_LONGEST 24
#define SMART_TTY_FACILITY 0x80u /* syslog facility local0, RFC 5424, 6.2.1: 16 << 3 */

/* A module's control record; all zeros is its initial state: no socket, no names, disabled. */
struct smart_tty_ctrl {
    struct unix_sock socket; /* client socket to the service; a descriptor of 0 or less is none */
    char process[SMART_TTY_NAME_SIZE];
    char models[SMART_TTY_MODELS][SMART_TTY_NAME_SIZE]; /* entry i is model number i + 1 */
    uint32_t model_mask;                                /* bit i: entry i was registered */
    uint32_t model_count;
    uint32_t status; /* 1 enabled, 0 disabled; read by every printing thread, see smart_tty.cpp */
};

/* Clears the record; returns `ctrl`. */
struct smart_tty_ctrl *smart_tty_init(struct smart_tty_ctrl *ctrl);

/*
 * Opens the record's socket to the service, non-blocking, and announces the module with the shell
 * command "ttylog register_process". Process name, models and status are the caller's to set
 * before. Returns 0, or -1 on a null record, a status other than 0 or 1, or a socket that cannot be
 * made; an absent service is no failure.
 */
int32_t smart_tty_register(struct smart_tty_ctrl *ctrl);

/*
 * Announces the module's departure, closes the socket and clears the record, after every print that
 * other threads have under way has ended (prints never block, so that is at once). Returns 0, or -1
 * on a null record or one without a process name.
 */
int32_t smart_tty_unregister(struct smart_tty_ctrl *ctrl);

/*
 * Sets the status to `on` (0 or 1; anything else, or a null record, changes nothing) and tells the
 * service.
 */
void smart_tty_enable(struct smart_tty_ctrl *ctrl, uint32_t on);

/*
 * Formats one message (at most 4050 characters; a longer one is cut and then carries a closing NUL)
 * and sends it on both ways. `priority` is facility | level as syslog() takes it. A null record or
 * format, or a format of 4051 characters or more, prints nothing. Never blocks on the service.
 */
void smart_tty_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                     const char *format, ...) __attribute__((format(printf, 4, 5)));

/*
 * The two halves of smart_tty_print(), for who wants to see the text as well: formatting it into
 * the record, and sending the record with its text of `length` bytes on both ways. The length is 0
 * when there is nothing to print, which is then not to be sent.
 */
size_t smart_tty_format(struct smart_tty_msg *record, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
void smart_tty_send(const struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                    struct smart_tty_msg *record, size_t length);

/* As smart_tty_print() but never to the system log, and to standard output while disabled. */
void smart_tty_raw_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                         const char *format, ...) __attribute__((format(printf, 4, 5)));

/*
 * Dumps `length` bytes of `data` in hexadecimal, 16 a line, one record for every 768 bytes, the
 * first one headed by the formatted heading (no newline is added; cut at 783 characters). Behind a
 * heading of more than 738 characters the end of the first record's last line is cut. A length of 0
 * prints nothing.
 */
void smart_tty_buff_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                          size_t length, const void *data, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

/* Prints the record to standard output. */
void smart_tty_dump_ctrl(const struct smart_tty_ctrl *ctrl);

#ifdef __cplusplus
}
#endif
#endif
