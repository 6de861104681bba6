#include "wechat/access_token.h"

#include <stdio.h>
#include <string.h>

#include "log/log.h"
#include "pool/minute_clock.h"
#include "wechat/answer_text.h"
#include "wechat/api_request.h"

#define TOKEN_PATH "/cgi-bin/token?grant_type=client_credential&appid=%s&secret=%s"
static_assert(sizeof TOKEN_PATH + WECHAT_APPID_SIZE + WECHAT_APPSECRET_SIZE <= HTTP_TASK_PATH_SIZE,
              "any account's path fits");

static const int32_t TOKEN_ANSWER_SIZE = 61440;

int32_t wechat_read_token_answer(const char *answer, char token[WECHAT_ACCESS_TOKEN_SIZE],
                                 int32_t *expires_in)
{
    const char *at = wechat_pass_literal(answer, "{\"access_token\":\"");
    at = wechat_read_text(at, token, WECHAT_ACCESS_TOKEN_SIZE);
    at = wechat_pass_literal(at, "\",\"expires_in\":");
    at = wechat_read_number(at, expires_in);
    return at != nullptr ? 0 : -1;
}

int32_t wechat_token_expire_min(int32_t now, int32_t expires_in)
{
    const int64_t minute = (int64_t)now + expires_in / 60 - WECHAT_TOKEN_RESERVE_MIN;
    return minute < INT32_MAX ? (int32_t)minute : INT32_MAX;
}

// The secret as it is now: the main thread may replace it at any time.
static void copy_secret(const TO_CHECK_ACCOUNT *account, char secret[WECHAT_APPSECRET_SIZE])
{
    pthread_mutex_lock(&wechat_chain_mutex);
    memcpy(secret, account->appsecret, WECHAT_APPSECRET_SIZE);
    pthread_mutex_unlock(&wechat_chain_mutex);
}

static void store_token(TO_CHECK_ACCOUNT *account, const char *token, int32_t expire_min,
                        const char *used_secret)
{
    pthread_mutex_lock(&wechat_chain_mutex);
    memcpy(account->access_token, token, strlen(token) + 1);
    if (strcmp(account->appsecret, used_secret) == 0) {
        account->token_expire_min = expire_min;
    }
    pthread_mutex_unlock(&wechat_chain_mutex);
}

int32_t wechat_refresh_access_token(TO_CHECK_ACCOUNT *account)
{
    // Too large for a small stack; one thread only.
    static struct http_task task;
    static char answer[TOKEN_ANSWER_SIZE];
    char secret[WECHAT_APPSECRET_SIZE];
    copy_secret(account, secret);
    wechat_prepare_task(&task, 0);
    snprintf(task.path, sizeof task.path, TOKEN_PATH, account->appid, secret);
    int32_t length = 0;
    const int32_t rc = wechat_send_recv(&task, answer, TOKEN_ANSWER_SIZE, &length);
    if (rc != 0) {
        return rc;
    }
    char token[WECHAT_ACCESS_TOKEN_SIZE];
    int32_t expires_in = 0;
    if (wechat_read_token_answer(answer, token, &expires_in) != 0) {
        PELKIN_LOG_ERROR("failed to refresh access token for appid(%s), response:%s",
                         account->appid, answer);
        return -1;
    }
    const int32_t now = pelkin_cur_minute();
    const int32_t expire_min = wechat_token_expire_min(now, expires_in);
    store_token(account, token, expire_min, secret);
    PELKIN_LOG_DEBUG("refreshed access token for appid(%s), will expire at %d, now:%d. rc:%d",
                     account->appid, expire_min, now, rc);
    return 0;
}
