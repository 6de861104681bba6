/*
 * A tree by hash value: an account's place is found by following the hash of its id from the root,
 * two bits a level, past accounts of other ids to the first free place. So an account fits any
 * place on its way: one that leaves is replaced by any account beneath it that has none beneath
 * itself. A hundred thousand accounts lie some nine levels deep. The hash starts from a value that
 * nobody outside knows, or a caller could choose ids that all go the same way.
 */
#include "wechat/account_index.h"

#include <string.h>
#include <time.h>

static const uint32_t BITS_A_LEVEL = 2;
static_assert(1u << BITS_A_LEVEL == WECHAT_INDEX_CHILDREN, "a child for each value of the bits");

static TO_CHECK_ACCOUNT *root;
static TO_CHECK_ACCOUNT *known_head; // of the chain that the tree was built from
static uint64_t hash_start;          // of all accounts in the tree

// Where the way of a hash goes on.
struct way {
    TO_CHECK_ACCOUNT **place;
    uint64_t hash; // what is left of it
};

// FNV-1a of Fowler, Noll and Vo (64 bits), its start aside. Never 0, which marks an account as
// being outside the tree.
static uint64_t hash_of(const char *appid)
{
    static const uint64_t prime = 0x100000001B3;
    uint64_t hash = hash_start;
    for (const char *at = appid; *at != '\0'; at++) {
        hash = (hash ^ (uint8_t)*at) * prime;
    }
    // The last bytes have reached the upper bits only in part: fold those down.
    hash ^= hash >> 32;
    return hash != 0 ? hash : 1;
}

static void step(struct way *way)
{
    way->place = &(*way->place)->index.children[way->hash % WECHAT_INDEX_CHILDREN];
    way->hash >>= BITS_A_LEVEL;
}

// The place of the account with this id, which is free when there is none.
static TO_CHECK_ACCOUNT **find_place(const char *appid, uint64_t hash)
{
    struct way way = {.place = &root, .hash = hash};
    while (*way.place != nullptr &&
           ((*way.place)->index.hash != hash || strcmp((*way.place)->appid, appid) != 0)) {
        step(&way);
    }
    return way.place;
}

static void add(TO_CHECK_ACCOUNT *account)
{
    account->index = {};
    const uint64_t hash = hash_of(account->appid);
    TO_CHECK_ACCOUNT **place = find_place(account->appid, hash);
    if (*place == nullptr) {
        account->index.hash = hash;
        *place = account;
    }
}

// The place of an account beneath `place`, or of the one there, that has none beneath itself.
static TO_CHECK_ACCOUNT **find_lowest(TO_CHECK_ACCOUNT **place)
{
    uint32_t i = 0;
    while (i < WECHAT_INDEX_CHILDREN) {
        TO_CHECK_ACCOUNT **child = &(*place)->index.children[i];
        if (*child == nullptr) {
            i++;
        } else {
            place = child;
            i = 0;
        }
    }
    return place;
}

static void take_out(TO_CHECK_ACCOUNT *account)
{
    struct way way = {.place = &root, .hash = account->index.hash};
    while (*way.place != nullptr && *way.place != account) {
        step(&way);
    }
    if (*way.place == nullptr) {
        return; // a second one of its id
    }
    TO_CHECK_ACCOUNT **lowest = find_lowest(way.place);
    TO_CHECK_ACCOUNT *moved = *lowest;
    *lowest = nullptr;
    if (moved != account) {
        memcpy(moved->index.children, account->index.children, sizeof moved->index.children);
        *way.place = moved;
    }
    account->index = {};
}

// Whatever it was built from may have been freed, so nothing of the old tree is looked at.
static void rebuild(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    hash_start = ((uint64_t)now.tv_nsec << 32 ^ (uint64_t)now.tv_sec) * 31 ^ (uintptr_t)&now;
    root = nullptr;
    for (TO_CHECK_ACCOUNT *account = wechat_account_chain; account != nullptr;
         account = account->next) {
        add(account);
    }
    known_head = wechat_account_chain;
}

// The head alone tells: a new one was set by hand, or the same memory became another account, which
// has never been in the tree.
static void follow_chain(void)
{
    const bool is_known = wechat_account_chain == known_head &&
                          (known_head == nullptr || known_head->index.hash != 0);
    if (!is_known || hash_start == 0) {
        rebuild();
    }
}

TO_CHECK_ACCOUNT *wechat_find_account(const char *appid)
{
    follow_chain();
    return *find_place(appid, hash_of(appid));
}

void wechat_link_account(TO_CHECK_ACCOUNT *account)
{
    follow_chain();
    account->next = wechat_account_chain;
    wechat_account_chain = account;
    known_head = account;
    add(account);
}

void wechat_unlink_account(TO_CHECK_ACCOUNT **link)
{
    follow_chain();
    TO_CHECK_ACCOUNT *account = *link;
    take_out(account);
    *link = account->next;
    account->next = nullptr;
    known_head = wechat_account_chain;
}
