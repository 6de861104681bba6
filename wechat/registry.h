/*
 * The registry of WeChat clients whose check waits for its minute: a chain of accounts, each with
 * its credentials, its access token and its clients in the order in which they fall due. Requests
 * enter it on the main thread; the follow-check thread (wechat/follow_check.h) takes the due
 * clients out, checks them and frees them, and frees accounts that stay idle.
 *
 * A chain may hold tens of thousands of clients while the main thread must get on at once, so about
 * every 64th client, chosen at random, also stands in its account's express lane: a search runs
 * along the lane first and along the chain only for the last stretch. An account is found by
 * wechat/account_index.h. Both leave the chains as they would be without them, and whoever changes
 * a chain at its head (takes a run of due clients off an account, say) need not know of them.
 *
 * wechat_chain_mutex guards both chains and all that the two threads share. It is never held during
 * an exchange with the server.
 */
#ifndef PELKIN_WECHAT_REGISTRY_H
#define PELKIN_WECHAT_REGISTRY_H

#include <pthread.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "wechat/wechat_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#define WECHAT_ACCESS_TOKEN_SIZE 513 /* 512 characters and the NUL */

/* Idle accounts that keep their token for the next request. */
#define WECHAT_IDLE_ACCOUNTS_KEPT 11

#define WECHAT_INDEX_CHILDREN 4

/* One accepted request. Its account's until it is detached, then the follow-check thread's. */
typedef struct TO_CHECK_CLIENT {
    uint8_t mac[PELKIN_MAC_SIZE];
    char openid[WECHAT_OPENID_SIZE];
    int32_t expire_min; /* minute of pelkin_cur_minute() at which the check is due */
    struct TO_CHECK_CLIENT *next;
    struct TO_CHECK_CLIENT *express; /* next one in the express lane; null outside the lane */
} TO_CHECK_CLIENT;

/* An account's place in the index. All zeros: it is not in it. */
struct wechat_index_node {
    uint64_t hash;
    struct TO_CHECK_ACCOUNT *children[WECHAT_INDEX_CHILDREN];
};

/* One official account. Freed by the follow-check thread alone. */
typedef struct TO_CHECK_ACCOUNT {
    char appid[WECHAT_APPID_SIZE];               /* never changes */
    char appsecret[WECHAT_APPSECRET_SIZE];       /* the latest one received; mutex */
    char access_token[WECHAT_ACCESS_TOKEN_SIZE]; /* written and read by the follow-check thread */
    int32_t token_expire_min;       /* minute from which the token counts as expired; mutex */
    struct TO_CHECK_ACCOUNT *next;  /* mutex */
    TO_CHECK_CLIENT *clients;       /* ascending by due minute, equal ones by arrival; mutex */
    TO_CHECK_CLIENT *express;       /* the express lane of `clients`; mutex */
    TO_CHECK_CLIENT *express_for;   /* the head of `clients` to which the lane belongs; mutex */
    struct wechat_index_node index; /* mutex */
} TO_CHECK_ACCOUNT;

/* The newest account first. */
extern TO_CHECK_ACCOUNT *wechat_account_chain;
extern pthread_mutex_t wechat_chain_mutex;

/*
 * Registers the request of a whole message, envelope included, as one more client to check; a
 * request that came before is not replaced. The sender is not used. 0, or -1 (logged) when the
 * payload is too short or there is no memory. Main thread; the mutex must be free.
 */
int32_t wechat_req_msg_proc(const void *message, const struct sockaddr_un *sender_address,
                            socklen_t sender_address_length);

/* Logs the request at debug level, no field beyond its width. Any thread. */
void wechat_print_req_msg(const struct wechat_check_follow_req *req);

/*
 * Takes the clients that are due at minute `now` off the account; null when there is none. The
 * caller owns the list, which it walks by `next`. With the mutex held.
 */
TO_CHECK_CLIENT *wechat_detach_due_clients(TO_CHECK_ACCOUNT *account, int32_t now);

/*
 * Frees a detached list and gives memory back to the system when much has been freed. Follow-check
 * thread, without the mutex.
 */
void wechat_free_clients(TO_CHECK_CLIENT *clients);

/*
 * Frees the idle accounts beyond the newest WECHAT_IDLE_ACCOUNTS_KEPT. Follow-check thread, between
 * its passes; the mutex must be free.
 */
void wechat_delete_idle_account(void);

#ifdef __cplusplus
}
#endif
#endif
