#include "log/ttylog_modules.h"

#include <stdio.h>

#include "platform/zel_system.h"

struct smart_tty_ctrl pelkin_ttylog_ctrl;
struct smart_tty_ctrl kivren_ttylog_ctrl;
struct smart_tty_ctrl vesk_ttylog_ctrl;
struct smart_tty_ctrl hux_ttylog_ctrl;

uint32_t tu_pelkin_fltlog;
uint32_t tu_kivren_fltlog;
uint32_t tu_hux_fltlog;
uint32_t tu_kivren_ccdlog_enable;
char tu_kivren_ccdbuf[TU_CCDBUF_SIZE];

static int32_t register_module(struct smart_tty_ctrl *ctrl, const char *process, const char *model)
{
    smart_tty_init(ctrl);
    snprintf(ctrl->process, sizeof ctrl->process, "%s", process);
    snprintf(ctrl->models[0], sizeof ctrl->models[0], "%s", model);
    ctrl->status = 1;
    return smart_tty_register(ctrl);
}

int32_t pelkin_ttylog_init(void)
{
    return register_module(&pelkin_ttylog_ctrl, "PELKIN", "pelkin");
}

int32_t kivren_ttylog_init(void)
{
    return register_module(&kivren_ttylog_ctrl, "KIVRen", "kivren");
}

int32_t vesk_ttylog_init(void)
{
    return register_module(&vesk_ttylog_ctrl, "VESK", "vesk");
}

int32_t hux_ttylog_init(void)
{
    return register_module(&hux_ttylog_ctrl, "hux_feed_sub", "hux_feed_sub");
}

int32_t pelkin_ttylog_unregister(void)
{
    return smart_tty_unregister(&pelkin_ttylog_ctrl);
}

int32_t kivren_ttylog_unregister(void)
{
    return smart_tty_unregister(&kivren_ttylog_ctrl);
}

int32_t vesk_ttylog_unregister(void)
{
    return smart_tty_unregister(&vesk_ttylog_ctrl);
}

int32_t hux_ttylog_unregister(void)
{
    return smart_tty_unregister(&hux_ttylog_ctrl);
}

void tev_ttylog_serial_default(const struct smart_tty_ctrl *ctrl, int32_t level)
{
    static const char *const level_words[8] = {"emerg",   "alert",  "critical", "error",
                                               "warning", "notice", "info",     "debug"};
    if (ctrl == nullptr || ctrl->status == 0 || level < 0 || level > 7) {
        return;
    }
    char command[128];
    snprintf(command, sizeof command, "ttylog serial_debug %s level %s", ctrl->process,
             level_words[level]);
    puts(command);
    // The shell writes to the same place: what stands in our buffer must come before its output.
    fflush(stdout);
    (void)zel_system(command);
}
