#include "wechat/registry.h"

#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include "log/field.h"
#include "log/log.h"
#include "pool/minute_clock.h"
#include "wechat/account_index.h"

// Whose name the lines about a request carry.
#define REGISTERING "wechat_req_msg_proc"

TO_CHECK_ACCOUNT *wechat_account_chain;
pthread_mutex_t wechat_chain_mutex = PTHREAD_MUTEX_INITIALIZER;

// One client in this many joins the express lane. A power of two near the root of the chain length
// (10,000) for which searches should be quick.
static const uint32_t EXPRESS_LANE_STRIDE = 64;

// Freed clients after which memory goes back to the system: few enough that the allocator, which
// the main thread may be waiting for meanwhile, is done in a fraction of a millisecond.
static const uint32_t CLIENTS_FREED_PER_TRIM = 1024;

// A place in a client chain: the last client, and the last one in the express lane, that are due no
// later than some minute. Null when there is none before the place.
struct place {
    TO_CHECK_CLIENT *client;
    TO_CHECK_CLIENT *express;
};

void wechat_print_req_msg(const struct wechat_check_follow_req *req)
{
    PELKIN_LOG_DEBUG("wechat check-follow request message: client mac:" PELKIN_MAC_FORMAT
                     ", openid:%.*s, appid:%.*s, delay:%d minutes.",
                     PELKIN_MAC(req->mac), PELKIN_FIELD(req->openid), PELKIN_FIELD(req->appid),
                     req->delay);
}

// The request of a message, its texts terminated. 0, or -1 when the message holds no whole request.
static int32_t read_request(const void *message, struct wechat_check_follow_req *request)
{
    struct ipc_msg_hdr header;
    memcpy(&header, message, sizeof header);
    if (header.len < sizeof *request) {
        PELKIN_LOG_AS(REGISTERING, ERROR,
                      "wechat check-follow request of %u bytes refused, expected:%u", header.len,
                      (unsigned)sizeof *request);
        return -1;
    }
    memcpy(request, (const uint8_t *)message + sizeof header, sizeof *request);
    request->openid[WECHAT_OPENID_SIZE - 1] = '\0';
    request->appid[WECHAT_APPID_SIZE - 1] = '\0';
    request->appsecret[WECHAT_APPSECRET_SIZE - 1] = '\0';
    return 0;
}

static int32_t add_minutes(int32_t now, int32_t delay)
{
    int32_t sum = 0;
    if (__builtin_add_overflow(now, delay, &sum)) {
        return delay < 0 ? INT32_MIN : INT32_MAX;
    }
    return sum;
}

static TO_CHECK_ACCOUNT *add_account(const struct wechat_check_follow_req *request, int32_t now)
{
    TO_CHECK_ACCOUNT *account = (TO_CHECK_ACCOUNT *)calloc(1, sizeof *account);
    if (account == nullptr) {
        PELKIN_LOG_AS(REGISTERING, ERROR, "Malloc TO_CHECK_ACCOUNT for appid(%s) failed.",
                      request->appid);
        return nullptr;
    }
    memcpy(account->appid, request->appid, sizeof account->appid);
    memcpy(account->appsecret, request->appsecret, sizeof account->appsecret);
    account->token_expire_min = now;
    wechat_link_account(account);
    PELKIN_LOG_AS(REGISTERING, DEBUG, "added new appid(%s, addr:%p) to the wechat account chain",
                  account->appid, (void *)account);
    return account;
}

// The request's account with the request's secret, added when it is new; null without memory.
static TO_CHECK_ACCOUNT *provide_account(const struct wechat_check_follow_req *request, int32_t now)
{
    TO_CHECK_ACCOUNT *account = wechat_find_account(request->appid);
    if (account == nullptr) {
        return add_account(request, now);
    }
    if (strcmp(account->appsecret, request->appsecret) != 0) {
        memcpy(account->appsecret, request->appsecret, sizeof account->appsecret);
        account->token_expire_min = now;
        PELKIN_LOG_AS(REGISTERING, DEBUG, "appsecret of appid(%s) changed", account->appid);
    }
    return account;
}

// Somebody may have taken the leading clients off the account without a word to the lane, which
// then begins with clients that are gone. The first one in the chain from which a lane goes on is
// where the rest of it begins; not to find its last client costs nothing but speed.
static void keep_lane_in_chain(TO_CHECK_ACCOUNT *account)
{
    if (account->express_for == account->clients) {
        return;
    }
    TO_CHECK_CLIENT *client = account->clients;
    while (client != nullptr && client->express == nullptr) {
        client = client->next;
    }
    account->express = client;
    account->express_for = account->clients;
}

static struct place find_place(TO_CHECK_ACCOUNT *account, int32_t minute)
{
    keep_lane_in_chain(account);
    struct place place = {};
    TO_CHECK_CLIENT *next = account->express;
    while (next != nullptr && next->expire_min <= minute) {
        place.express = next;
        next = next->express;
    }
    place.client = place.express;
    next = place.express != nullptr ? place.express->next : account->clients;
    while (next != nullptr && next->expire_min <= minute) {
        place.client = next;
        next = next->next;
    }
    return place;
}

// Random, so that no pattern of requests keeps a stretch of the chain out of the lane. The
// generator is Marsaglia's xorshift32 ("Xorshift RNGs", 2003), its state guarded by the mutex.
static bool is_chosen_for_express_lane(void)
{
    static uint32_t state = 1;
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state % EXPRESS_LANE_STRIDE == 0;
}

static void insert_client(TO_CHECK_ACCOUNT *account, TO_CHECK_CLIENT *client)
{
    const struct place place = find_place(account, client->expire_min);
    TO_CHECK_CLIENT **link = place.client != nullptr ? &place.client->next : &account->clients;
    client->next = *link;
    *link = client;
    if (is_chosen_for_express_lane()) {
        link = place.express != nullptr ? &place.express->express : &account->express;
        client->express = *link;
        *link = client;
    }
    account->express_for = account->clients;
}

static int32_t register_client(const struct wechat_check_follow_req *request, int32_t now)
{
    TO_CHECK_ACCOUNT *account = provide_account(request, now);
    if (account == nullptr) {
        return -1;
    }
    TO_CHECK_CLIENT *client = (TO_CHECK_CLIENT *)calloc(1, sizeof *client);
    if (client == nullptr) {
        PELKIN_LOG_AS(REGISTERING, ERROR,
                      "Malloc TO_CHECK_CLIENT for client " PELKIN_MAC_FORMAT " failed.",
                      PELKIN_MAC(request->mac));
        return -1;
    }
    memcpy(client->mac, request->mac, sizeof client->mac);
    memcpy(client->openid, request->openid, sizeof client->openid);
    client->expire_min = add_minutes(now, request->delay);
    insert_client(account, client);
    PELKIN_LOG_AS(REGISTERING, DEBUG,
                  "added new client(addr:%p, mac:" PELKIN_MAC_FORMAT ", openid:%s) to the client "
                  "chain of appid(%s, addr:%p), expire time:%dmin, cur time:%dmin",
                  (void *)client, PELKIN_MAC(client->mac), client->openid, account->appid,
                  (void *)account, client->expire_min, now);
    return 0;
}

int32_t wechat_req_msg_proc(const void *message, const struct sockaddr_un *, socklen_t)
{
    struct wechat_check_follow_req request;
    if (read_request(message, &request) != 0) {
        return -1;
    }
    const int32_t now = pelkin_cur_minute();
    wechat_print_req_msg(&request);
    pthread_mutex_lock(&wechat_chain_mutex);
    const int32_t rc = register_client(&request, now);
    pthread_mutex_unlock(&wechat_chain_mutex);
    return rc;
}

TO_CHECK_CLIENT *wechat_detach_due_clients(TO_CHECK_ACCOUNT *account, int32_t now)
{
    const struct place place = find_place(account, now);
    if (place.client == nullptr) {
        return nullptr;
    }
    TO_CHECK_CLIENT *due = account->clients;
    account->clients = place.client->next;
    place.client->next = nullptr;
    if (place.express != nullptr) {
        account->express = place.express->express;
    }
    account->express_for = account->clients;
    return due;
}

// Small blocks that were freed otherwise stay with the process for good.
static void return_memory_now_and_then(void)
{
#ifdef __GLIBC__
    static uint32_t freed; // follow-check thread only
    if (++freed % CLIENTS_FREED_PER_TRIM == 0) {
        malloc_trim(0);
    }
#endif
}

void wechat_free_clients(TO_CHECK_CLIENT *clients)
{
    while (clients != nullptr) {
        TO_CHECK_CLIENT *client = clients;
        clients = client->next;
        PELKIN_LOG_AS("wechat_check_clients_of_one_account", DEBUG,
                      "to free client(addr:%p, mac:" PELKIN_MAC_FORMAT ", openid:%s)",
                      (void *)client, PELKIN_MAC(client->mac), client->openid);
        free(client);
        return_memory_now_and_then();
    }
}

// Unlinks the idle accounts that do not stay and returns them as a chain of their own, in the same
// order.
static TO_CHECK_ACCOUNT *detach_idle_accounts(void)
{
    TO_CHECK_ACCOUNT *detached = nullptr;
    TO_CHECK_ACCOUNT **end = &detached;
    int32_t kept = 0;
    TO_CHECK_ACCOUNT **link = &wechat_account_chain;
    while (*link != nullptr) {
        TO_CHECK_ACCOUNT *account = *link;
        if (account->clients != nullptr || kept < WECHAT_IDLE_ACCOUNTS_KEPT) {
            kept += account->clients == nullptr ? 1 : 0;
            link = &account->next;
        } else {
            wechat_unlink_account(link);
            *end = account;
            end = &account->next;
        }
    }
    return detached;
}

void wechat_delete_idle_account(void)
{
    pthread_mutex_lock(&wechat_chain_mutex);
    TO_CHECK_ACCOUNT *account = detach_idle_accounts();
    pthread_mutex_unlock(&wechat_chain_mutex);
    while (account != nullptr) {
        TO_CHECK_ACCOUNT *next = account->next;
        PELKIN_LOG_DEBUG("to delete idle appid(%s, addr:%p)", account->appid, (void *)account);
        free(account);
        account = next;
    }
}
