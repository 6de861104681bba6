/* The report about a batch, on its way to the station manager. */
#ifndef PELKIN_SOCIAL_REAUTH_REPORT_H
#define PELKIN_SOCIAL_REAUTH_REPORT_H

#include <stdint.h>

#include "social/reauth_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Sends the report to the station manager, whoever asked for it. 0, or -1 (logged) when it is null
 * or could not be sent; there is no retry. Needs about 64 KiB of stack, touched as far as the
 * report is long. Any thread.
 */
int32_t pelkin_send_reauth_resp(const struct reauth_resp *resp);

/* Logs the report at debug level. 0, or -1 (logged) when it is null. Any thread. */
int32_t pelkin_print_reauth_resp_msg(const struct reauth_resp *resp);

#ifdef __cplusplus
}
#endif
#endif
