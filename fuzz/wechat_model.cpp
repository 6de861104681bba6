#include "fuzz/wechat_model.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

#include "fuzz/harness.h"
#include "wechat/registry.h"

void wechat_model_add(wechat_model *model, const std::string &payload, int32_t now)
{
    struct wechat_check_follow_req request = {};
    if (payload.size() < sizeof request) {
        return;
    }
    memcpy(&request, payload.data(), sizeof request);
    const std::string appid = text_of_field(request.appid, sizeof request.appid - 1);
    const std::string secret = text_of_field(request.appsecret, sizeof request.appsecret - 1);
    auto account = std::find_if(model->begin(), model->end(),
                                [&](const model_account &one) { return one.appid == appid; });
    if (account == model->end()) {
        account = model->insert(model->begin(), {appid, secret, now, {}});
    } else if (account->secret != secret) {
        account->secret = secret;
        account->token_expire_min = now;
    }
    const int64_t due = std::clamp<int64_t>((int64_t)now + request.delay, INT32_MIN, INT32_MAX);
    const auto place = std::find_if(account->clients.begin(), account->clients.end(),
                                    [&](const model_client &one) { return one.due > due; });
    account->clients.insert(place, {std::string((const char *)request.mac, sizeof request.mac),
                                    text_of_field(request.openid, sizeof request.openid - 1),
                                    (int32_t)due});
}

static std::vector<model_client> list_clients(const TO_CHECK_CLIENT *client)
{
    std::vector<model_client> clients;
    for (; client != nullptr; client = client->next) {
        clients.push_back({std::string((const char *)client->mac, sizeof client->mac),
                           client->openid, client->expire_min});
    }
    return clients;
}

// Each client of the lane stands in the chain, behind the one before it.
static void check_express_lane(const TO_CHECK_ACCOUNT *account)
{
    const TO_CHECK_CLIENT *client = account->clients;
    for (const TO_CHECK_CLIENT *next = account->express; next != nullptr; next = next->express) {
        while (client != nullptr && client != next) {
            client = client->next;
        }
        require(client != nullptr, "the express lane is part of the chain");
    }
}

wechat_model wechat_registry_now(void)
{
    wechat_model accounts;
    for (const TO_CHECK_ACCOUNT *account = wechat_account_chain; account != nullptr;
         account = account->next) {
        check_express_lane(account);
        accounts.push_back({account->appid, account->appsecret, account->token_expire_min,
                            list_clients(account->clients)});
    }
    return accounts;
}

static void detach(TO_CHECK_ACCOUNT *account, std::vector<model_client> *clients, int32_t now)
{
    const auto end = std::find_if(clients->begin(), clients->end(),
                                  [&](const model_client &one) { return one.due > now; });
    const std::vector<model_client> due(clients->begin(), end);
    clients->erase(clients->begin(), end);
    TO_CHECK_CLIENT *detached = wechat_detach_due_clients(account, now);
    require(list_clients(detached) == due, "the clients that are due");
    check_express_lane(account);
    wechat_free_clients(detached);
}

void wechat_take_out(wechat_model *model, int32_t now)
{
    for (model_account &account : *model) {
        TO_CHECK_ACCOUNT *real = wechat_account_chain;
        detach(real, &account.clients, now);
        detach(real, &account.clients, INT32_MAX);
        wechat_account_chain = real->next;
        free(real);
    }
}
