/* Pieces of log messages that stand in several of them. */
#ifndef PELKIN_LOG_FIELD_H
#define PELKIN_LOG_FIELD_H

/* For "%.*s": a fixed-width text field is read no further than its width, NUL or not. */
#define PELKIN_FIELD(field) (int)sizeof(field), field

/* A station's address: its format and its arguments. */
#define PELKIN_MAC_FORMAT "%02x:%02x:%02x:%02x:%02x:%02x"
#define PELKIN_MAC(mac) (mac)[0], (mac)[1], (mac)[2], (mac)[3], (mac)[4], (mac)[5]

#endif
