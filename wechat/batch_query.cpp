#include "wechat/batch_query.h"

#include <stdio.h>
#include <string.h>

#include "log/log.h"
#include "social/station_removal.h"
#include "wechat/answer_text.h"
#include "wechat/api_request.h"

#define BATCH_PATH "/cgi-bin/user/info/batchget?access_token=%s"
#define BODY_OPENING "{ \"user_list\": [ "
#define BODY_ENTRY "%s{\"openid\": \"%s\",\"lang\": \"zh_CN\"}"
#define BODY_CLOSING " ]}"
static_assert(sizeof BATCH_PATH + WECHAT_ACCESS_TOKEN_SIZE <= HTTP_TASK_PATH_SIZE,
              "any token's path fits");
static_assert(sizeof BODY_OPENING + sizeof BODY_CLOSING +
                      WECHAT_BATCH_CLIENTS_MAX * (sizeof BODY_ENTRY + WECHAT_OPENID_SIZE) <=
                  HTTP_TASK_DATA_MAX,
              "any batch's body fits");

// Whose name the lines about an answer carry.
#define EVALUATING "wechat_check_clients_of_one_batch"

static const int32_t BATCH_ANSWER_SIZE = 300000;
// More than an openid of ours has: a longer one must stay longer, so that it matches none.
static const size_t ANSWER_OPENID_SIZE = 128;

void wechat_prepare_batch_task(struct http_task *task, const char *access_token)
{
    wechat_prepare_task(task, PELKIN_HTTP_POST);
    snprintf(task->path, sizeof task->path, BATCH_PATH, access_token);
}

const TO_CHECK_CLIENT *wechat_write_batch_body(struct http_task *task,
                                               const TO_CHECK_CLIENT *clients)
{
    char *body = (char *)task->data;
    int used = snprintf(body, HTTP_TASK_DATA_MAX, BODY_OPENING);
    for (int32_t count = 0; clients != nullptr && count < WECHAT_BATCH_CLIENTS_MAX; count++) {
        used += snprintf(body + used, (size_t)(HTTP_TASK_DATA_MAX - used), BODY_ENTRY,
                         count == 0 ? "" : ",", clients->openid);
        clients = clients->next;
    }
    snprintf(body + used, (size_t)(HTTP_TASK_DATA_MAX - used), BODY_CLOSING);
    return clients;
}

void wechat_proc_not_subscribe_client(const char *openid, const TO_CHECK_CLIENT *clients)
{
    while (clients != nullptr && strcmp(clients->openid, openid) != 0) {
        clients = clients->next;
    }
    if (clients == nullptr) {
        PELKIN_LOG_ERROR("can't find client for openid:%s", openid);
        return;
    }
    (void)pelkin_del_sta_req(clients->mac);
}

// The first key of an entry must be subscribe, the next one behind its number openid.
static void evaluate_entry(const char *entry, const TO_CHECK_CLIENT *clients)
{
    char openid[ANSWER_OPENID_SIZE];
    int32_t subscribe = 0;
    const char *at = wechat_pass_literal(wechat_pass_to_quote(entry), "\"subscribe\":");
    at = wechat_pass_to_quote(wechat_read_number(at, &subscribe));
    at = wechat_read_text(wechat_pass_literal(at, "\"openid\":\""), openid, sizeof openid);
    if (at == nullptr) {
        PELKIN_LOG_AS(EVALUATING, ERROR, "invalid client info from wechat server, response:%s",
                      entry);
        return;
    }
    PELKIN_LOG_AS(EVALUATING, DEBUG, "client info from wechat server. subscribe:%d, openid:%s",
                  subscribe, openid);
    if (subscribe != 0) {
        PELKIN_LOG_AS(EVALUATING, DEBUG, "client has subscribed the wechat account.");
        return;
    }
    PELKIN_LOG_AS(EVALUATING, DEBUG,
                  "client hasn't subscribed the wechat account. to kick off it.");
    wechat_proc_not_subscribe_client(openid, clients);
}

int32_t wechat_evaluate_batch_answer(char *answer, const TO_CHECK_CLIENT *clients)
{
    char *list = strstr(answer, "user_info_list");
    if (list == nullptr) {
        PELKIN_LOG_AS(EVALUATING, ERROR,
                      "failed to get client info from wechat server, no \"user_info_list\", "
                      "response:%s",
                      answer);
        return -1;
    }
    char *entry = strchr(list, '{');
    if (entry == nullptr) {
        PELKIN_LOG_AS(EVALUATING, ERROR,
                      "failed to get client info from wechat server, no \"{\", response:%s",
                      answer);
        return -1;
    }
    while (entry != nullptr) {
        char *end = strchr(entry, '}');
        if (end == nullptr) {
            PELKIN_LOG_AS(EVALUATING, ERROR,
                          "invalid client info from wechat server, no \"}\", response:%s", entry);
            return -1;
        }
        *end = '\0';
        evaluate_entry(entry, clients);
        entry = strchr(end + 1, '{');
    }
    return 0;
}

int32_t wechat_check_clients_of_one_batch(const struct http_task *task,
                                          const TO_CHECK_CLIENT *clients)
{
    static char answer[BATCH_ANSWER_SIZE]; // too large for a small stack; one thread only
    PELKIN_LOG_DEBUG("begin one batch of clients check.");
    int32_t length = 0;
    int32_t rc = wechat_send_recv(task, answer, BATCH_ANSWER_SIZE, &length);
    if (rc == 0) {
        rc = wechat_evaluate_batch_answer(answer, clients);
    }
    PELKIN_LOG_DEBUG("finished one batch of clients check.");
    return rc;
}
