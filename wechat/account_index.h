/*
 * Finding an account by its id without a walk of the account chain: a tree beside the chain whose
 * nodes are the accounts themselves, so that it needs no memory of its own and cannot fail. The
 * chain stays the truth: whoever sets its head by hand, as the chain is public, makes the tree be
 * built anew from it at the next use. What stands further down the chain is added and taken out
 * through the functions below only.
 *
 * All functions: with wechat_chain_mutex held.
 */
#ifndef PELKIN_WECHAT_ACCOUNT_INDEX_H
#define PELKIN_WECHAT_ACCOUNT_INDEX_H

#include "wechat/registry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The account of the chain that has this id, the first one should there be several; or null. */
TO_CHECK_ACCOUNT *wechat_find_account(const char *appid);

/* Puts a zeroed account of a new id at the head of the chain. */
void wechat_link_account(TO_CHECK_ACCOUNT *account);

/* Takes the account that `*link`, the head or a `next` of the chain, points at out of the chain. */
void wechat_unlink_account(TO_CHECK_ACCOUNT **link);

#ifdef __cplusplus
}
#endif
#endif
