/*
 * The control records of the device's modules that log through this library, one function to
 * register and one to unregister each, and the per-module switches that go with them. The daemon
 * uses its own pair only. Main thread.
 */
#ifndef PELKIN_LOG_TTYLOG_MODULES_H
#define PELKIN_LOG_TTYLOG_MODULES_H

#include <stdint.h>

#include "log/log.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TU_CCDBUF_SIZE 1024

extern struct smart_tty_ctrl kivren_ttylog_ctrl;
extern struct smart_tty_ctrl vesk_ttylog_ctrl;
extern struct smart_tty_ctrl hux_ttylog_ctrl;

/* Switches and a buffer of the sibling modules; 0 at start. */
extern uint32_t tu_kivren_fltlog;
extern uint32_t tu_hux_fltlog;
extern uint32_t tu_kivren_ccdlog_enable;
extern char tu_kivren_ccdbuf[TU_CCDBUF_SIZE];

/* Name the module's record, enable it and register it: the result of smart_tty_register(). */
int32_t pelkin_ttylog_init(void);
int32_t kivren_ttylog_init(void);
int32_t vesk_ttylog_init(void);
int32_t hux_ttylog_init(void);

/* The result of smart_tty_unregister() on the module's record. */
int32_t pelkin_ttylog_unregister(void);
int32_t kivren_ttylog_unregister(void);
int32_t vesk_ttylog_unregister(void);
int32_t hux_ttylog_unregister(void);

/*
 * Sets a registered module's serial-debug level, 0 to 7, at the service; the command line is also
 * written to standard output. A null or disabled record, or a level out of range, does nothing.
 */
void tev_ttylog_serial_default(const struct smart_tty_ctrl *ctrl, int32_t level);

#ifdef __cplusplus
}
#endif
#endif
