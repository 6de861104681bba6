#include "wechat/follow_check.h"

#include <sys/select.h>

#include "core/http_task.h"
#include "crash/signal_stack.h"
#include "http/connection.h"
#include "log/field.h"
#include "log/log.h"
#include "platform/retry_pause.h"
#include "platform/thread_name.h"
#include "platform/thread_start.h"
#include "pool/minute_clock.h"
#include "wechat/access_token.h"
#include "wechat/api_request.h"
#include "wechat/batch_query.h"

static bool is_token_expired(const TO_CHECK_ACCOUNT *account, int32_t now)
{
    pthread_mutex_lock(&wechat_chain_mutex);
    const bool is_expired = account->token_expire_min <= now;
    pthread_mutex_unlock(&wechat_chain_mutex);
    return is_expired;
}

static void expire_token(TO_CHECK_ACCOUNT *account, int32_t now)
{
    pthread_mutex_lock(&wechat_chain_mutex);
    account->token_expire_min = now;
    pthread_mutex_unlock(&wechat_chain_mutex);
}

static void report_unchecked(const TO_CHECK_CLIENT *clients)
{
    for (; clients != nullptr; clients = clients->next) {
        PELKIN_LOG_AS("wechat_check_clients_of_one_account", ERROR,
                      "failed to check client(mac:" PELKIN_MAC_FORMAT ", openid:%s) due to error.",
                      PELKIN_MAC(clients->mac), clients->openid);
    }
}

static void check_in_batches(TO_CHECK_ACCOUNT *account, const TO_CHECK_CLIENT *clients, int32_t now)
{
    static struct http_task task; // too large for a small stack; one thread only
    wechat_prepare_batch_task(&task, account->access_token);
    while (clients != nullptr) {
        const TO_CHECK_CLIENT *later = wechat_write_batch_body(&task, clients);
        if (wechat_check_clients_of_one_batch(&task, clients) != 0) {
            expire_token(account, now);
            PELKIN_LOG_AS("wechat_check_clients_of_one_account", DEBUG,
                          "wechat_check_clients_of_one_batch return error");
            report_unchecked(clients);
            return;
        }
        clients = later;
    }
}

void wechat_check_clients_of_one_account(TO_CHECK_ACCOUNT *account, TO_CHECK_CLIENT *clients)
{
    PELKIN_LOG_DEBUG("begin clients check for appid:%s.", account->appid);
    const int32_t now = pelkin_cur_minute();
    const int32_t rc = is_token_expired(account, now) ? wechat_refresh_access_token(account) : 0;
    if (rc == 0) {
        check_in_batches(account, clients, now);
    } else {
        PELKIN_LOG_DEBUG("wechat_refresh_access_token return error:%d", rc);
        report_unchecked(clients);
    }
    PELKIN_LOG_DEBUG("finished clients check for appid:%s.", account->appid);
    wechat_free_clients(clients);
}

int32_t wechat_check_clients_of_all_accounts(void)
{
    pthread_mutex_lock(&wechat_chain_mutex);
    // An account stays while the mutex is free: this thread alone frees them, between its passes.
    for (TO_CHECK_ACCOUNT *account = wechat_account_chain; account != nullptr;
         account = account->next) {
        TO_CHECK_CLIENT *due = wechat_detach_due_clients(account, pelkin_cur_minute());
        if (due != nullptr) {
            pthread_mutex_unlock(&wechat_chain_mutex);
            wechat_check_clients_of_one_account(account, due);
            pthread_mutex_lock(&wechat_chain_mutex);
        }
    }
    pthread_mutex_unlock(&wechat_chain_mutex);
    return 0;
}

void *wechat_thread(void *)
{
    crashdump_thread_init();
    name_this_thread("wechat");
    uint32_t failed_waits = 0;
    for (;;) {
        struct timeval wait = {.tv_sec = WECHAT_CHECK_PERIOD_S, .tv_usec = 0};
        if (select(0, nullptr, nullptr, nullptr, &wait) < 0) {
            retry_pause(&failed_waits);
        } else {
            failed_waits = 0;
        }
        wechat_check_clients_of_all_accounts();
        wechat_delete_idle_account();
    }
}

int32_t wechat_init(void)
{
    wechat_use_context(pelkin_ctx);
    pthread_t thread; // ends with the process: neither joined nor detached
    if (start_thread(&thread, wechat_thread, nullptr) != 0) {
        PELKIN_LOG_ERROR("cannot start wechat thread.");
        return -1;
    }
    return 0;
}
