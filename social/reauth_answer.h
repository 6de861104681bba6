/*
 * The verification server's answer to a batch, matched to the batch's stations. The answer is
 * expected in compact form, without white space:
 *
 *     {"tokens":{"TOKEN":{"valid":true},"TOKEN":{"valid":false}}}
 *
 * It comes from outside and may hold anything. `attrs` is a batch after pelkin_cut_reauth_attr(),
 * or a whole record with any number of stations in it.
 */
#ifndef PELKIN_SOCIAL_REAUTH_ANSWER_H
#define PELKIN_SOCIAL_REAUTH_ANSWER_H

#include <stdint.h>

#include "social/reauth_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Analyses the NUL-terminated answer `resp` (of `resp_len` bytes) and, when at least one station
 * is in it, sends the report to the station manager. 0, also when nothing was or could be sent, or
 * -1 when `attrs` is null. Needs about 128 KiB of stack, touched as far as the report is long. Any
 * thread.
 */
int32_t pelkin_check_reauth_resp(const struct reauth_attr *attrs, const char *resp,
                                 int32_t resp_len);

/*
 * Adds the stations that the answer names to the report `out`, in the answer's order, until it is
 * full, and sets its tag. The caller has zeroed the report's head (`sta_num` 0). An entry whose
 * token or value is longer than its field is passed over. 0, or -1 on a null argument or an answer
 * without its opening key (both logged), or when the batch has no station. Any thread.
 */
int32_t pelkin_analysis_reauth_resp(const struct reauth_attr *attrs, const char *resp,
                                    struct reauth_resp *out);

/*
 * The first station of the batch whose token is exactly the NUL-terminated `token`, or null. It
 * lies in the batch. Any thread.
 */
const struct reauth_sta *pelkin_find_sta_by_token(const struct reauth_attr *attrs,
                                                  const char *token);

#ifdef __cplusplus
}
#endif
#endif
