/* The records in which the daemon hands its messages to the device's log service `ttylog`. */
#ifndef PELKIN_LOG_SMART_TTY_MSG_H
#define PELKIN_LOG_SMART_TTY_MSG_H

#include <stdint.h>

#define SMART_TTY_SERVICE_PATH "/tmp/ttylog.msg"
#define SMART_TTY_NAME_SIZE 32  /* process and model names, the NUL included */
#define SMART_TTY_TEXT_MAX 4051 /* bytes of text in one record */
#define SMART_TTY_HEADER_SIZE 44
#define SMART_TTY_KIND 2

/*
 * One datagram to the service: this header and `n` bytes of text without a NUL, 1 to
 * SMART_TTY_TEXT_MAX; a longer text is cut to that length and a NUL. Host byte order.
 */
struct smart_tty_msg {
    char process[SMART_TTY_NAME_SIZE]; /* at most 31 characters, the rest zero */
    uint32_t model;
    uint32_t level; /* 0 to 7, as syslog */
    uint32_t kind;  /* SMART_TTY_KIND */
    char text[SMART_TTY_TEXT_MAX + 1];
};

#endif
