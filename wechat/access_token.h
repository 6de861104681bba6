/* Fetching an account's access token from the API server. */
#ifndef PELKIN_WECHAT_ACCESS_TOKEN_H
#define PELKIN_WECHAT_ACCESS_TOKEN_H

#include <stdint.h>

#include "wechat/registry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Minutes before the API's own expiry from which a token counts as expired. */
#define WECHAT_TOKEN_RESERVE_MIN 10

/*
 * Fetches and stores a new access token. When the account's secret was replaced meanwhile, the
 * token is good for the check at hand but stays expired, so that the next one uses the new secret.
 * 0; -1 (logged) when the answer was not readable; or the exchange's failure. The account is
 * unchanged after a failure. Follow-check thread; the mutex must be free.
 */
int32_t wechat_refresh_access_token(TO_CHECK_ACCOUNT *account);

/*
 * Reads a token answer: the object's first key must be access_token, directly followed by
 * expires_in, without white space. 0 with the token (of at most 512 characters) and its life in
 * seconds, or -1. Any thread.
 */
int32_t wechat_read_token_answer(const char *answer, char token[WECHAT_ACCESS_TOKEN_SIZE],
                                 int32_t *expires_in);

/* The minute from which a token fetched at minute `now` counts as expired. Any thread. */
int32_t wechat_token_expire_min(int32_t now, int32_t expires_in);

#ifdef __cplusplus
}
#endif
#endif
