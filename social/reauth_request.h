/*
 * From a batch of stations to the text that asks the verification server about their tokens. The
 * batch is the worker's copy of what the requester sent, cut once to what really came.
 */
#ifndef PELKIN_SOCIAL_REAUTH_REQUEST_H
#define PELKIN_SOCIAL_REAUTH_REQUEST_H

#include <stddef.h>
#include <stdint.h>

#include "social/reauth_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The stations that `attrs->sta_num` claims, as far as the record holds them; below 1 when it
 * claims none. Any thread.
 */
int32_t pelkin_count_reauth_sta(const struct reauth_attr *attrs);

/*
 * Lowers `attrs->sta_num` to the entries that lie whole within the `length` bytes that came.
 * `attrs` has room for the head and one entry at least, and everything behind those bytes is zero.
 * To be called before anything else reads the batch, which then trusts the number. Any thread.
 */
void pelkin_cut_reauth_attr(struct reauth_attr *attrs, size_t length);

/*
 * Writes the text for the batch into `out` (`out_size` bytes, cut there, NUL-terminated, zero
 * behind the text):
 *
 *     secret=SECRET&tokens={"TOKEN":{"incoming":"N","outgoing":"N"},...}
 *
 * Only the secret is percent-encoded. The entries are cut at 65535 characters. A number of stations
 * below 1 still gives one entry, made from the first entry's place; one beyond the record's own
 * stands for all that it holds. Returns 0, or -1 (logged) when
 * an argument is null. Any thread.
 */
int32_t pelkin_build_reauth_data(char *out, size_t out_size, const struct reauth_attr *attrs);

#ifdef __cplusplus
}
#endif
#endif
