/*
 * Asking the API server in one request which of up to 100 clients have subscribed, and having those
 * deleted that have not. Follow-check thread.
 */
#ifndef PELKIN_WECHAT_BATCH_QUERY_H
#define PELKIN_WECHAT_BATCH_QUERY_H

#include <stdint.h>

#include "core/http_task.h"
#include "wechat/registry.h"

#ifdef __cplusplus
extern "C" {
#endif

#define WECHAT_BATCH_CLIENTS_MAX 100

/* Makes `task` the batch query with this access token; its body is still empty. */
void wechat_prepare_batch_task(struct http_task *task, const char *access_token);

/*
 * Writes the body for the first clients of the list, at most WECHAT_BATCH_CLIENTS_MAX, into the
 * task. Returns the first client that is not in it; null at the end of the list.
 */
const TO_CHECK_CLIENT *wechat_write_batch_body(struct http_task *task,
                                               const TO_CHECK_CLIENT *clients);

/*
 * Sends the prepared query and evaluates the answer against the whole list. 0 when the answer was
 * read to its end, else nonzero (logged).
 */
int32_t wechat_check_clients_of_one_batch(const struct http_task *task,
                                          const TO_CHECK_CLIENT *clients);

/*
 * Evaluates a batch answer, which is changed by it: every client that it reports as not subscribed
 * is deleted as it is met. 0, or -1 (logged) when the answer has no list of entries or an entry has
 * no end; an entry that is not readable is skipped (logged).
 */
int32_t wechat_evaluate_batch_answer(char *answer, const TO_CHECK_CLIENT *clients);

/* Has the first client of this openid in the list deleted; logs when there is none. */
void wechat_proc_not_subscribe_client(const char *openid, const TO_CHECK_CLIENT *clients);

#ifdef __cplusplus
}
#endif
#endif
