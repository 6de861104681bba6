// The WeChat registry as plain lists.
#ifndef PELKIN_FUZZ_WECHAT_MODEL_H
#define PELKIN_FUZZ_WECHAT_MODEL_H

#include <stdint.h>
#include <string>
#include <vector>

struct model_client {
    std::string mac;
    std::string openid;
    int32_t due;
    bool operator==(const model_client &) const = default;
};

struct model_account {
    std::string appid;
    std::string secret;
    int32_t token_expire_min;
    std::vector<model_client> clients;
    bool operator==(const model_account &) const = default;
};

// The accounts, newest first.
typedef std::vector<model_account> wechat_model;

// Takes a request's payload at minute `now`; one that is too short changes nothing.
void wechat_model_add(wechat_model *model, const std::string &payload, int32_t now);

// The daemon's registry in the same form, its express lanes checked.
wechat_model wechat_registry_now(void);

// Takes what is due at minute `now` out of both, which must be the same clients, and then the rest;
// leaves the daemon's registry empty.
void wechat_take_out(wechat_model *model, int32_t now);

#endif
