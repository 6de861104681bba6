/*
 * The verification server's answer about one station's token. A station whose token does not hold,
 * which the server says with {"valid":false}, is to be deleted.
 */
#ifndef PELKIN_SOCIAL_FBAUTH_H
#define PELKIN_SOCIAL_FBAUTH_H

#include <stdint.h>

#include "social/fbauth_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads the value of the key "valid" from the NUL-terminated answer `resp`, which comes from
 * outside and may hold anything, and asks for the removal of the station `attrs->mac` when it is
 * exactly "false". Returns 0 when the value was not empty, whatever became of the removal; -1
 * (logged) otherwise or on a null argument. Any thread.
 */
int32_t pelkin_analysis_fbauth_resp(const struct fbauth_attr *attrs, const char *resp);

#ifdef __cplusplus
}
#endif
#endif
