/*
 * The follow-check thread: every 30 seconds it takes the due clients of every account out of the
 * registry, asks the API server in batches which of them have subscribed to the account, has the
 * others deleted by the station manager, and frees them all. A client is checked once at most: what
 * fails is not repeated.
 *
 * The mutex of the registry is held to take clients out and to touch what the main thread may
 * write, never while the server is asked. The thread's large buffers are static ones, so that it
 * gets by with a small stack; the functions below are therefore its own alone.
 */
#ifndef PELKIN_WECHAT_FOLLOW_CHECK_H
#define PELKIN_WECHAT_FOLLOW_CHECK_H

#include <stdint.h>

#include "wechat/registry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds between two passes. */
#define WECHAT_CHECK_PERIOD_S 30

/*
 * Starts the thread with default attributes; it runs until the process ends. 0, or -1 (logged).
 * Start-up, once the TLS context and the request socket are there.
 */
int32_t wechat_init(void);

/* The thread's body, which takes nothing and never returns. */
void *wechat_thread(void *unused);

/* One pass over all accounts. Returns 0. The mutex must be free. */
int32_t wechat_check_clients_of_all_accounts(void);

/* Checks a detached list of the account's clients and frees it. The mutex must be free. */
void wechat_check_clients_of_one_account(TO_CHECK_ACCOUNT *account, TO_CHECK_CLIENT *clients);

#ifdef __cplusplus
}
#endif
#endif
