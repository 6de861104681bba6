// The API server's batch answer, any bytes, against a list of two clients, one of them with an
// openid that fills its field. The clients deleted must be those that the library's own scanner
// finds, entry by entry.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <string>

#include "social/station_removal.h"
#include "wechat/batch_query.h"

static std::string deleted; // the last byte of each address, in order

// In place of the one that sends.
int32_t pelkin_del_sta_req(const uint8_t mac[PELKIN_MAC_SIZE])
{
    deleted += (char)mac[PELKIN_MAC_SIZE - 1];
    return 0;
}

static std::string expect_deleted(const std::string &answer, const TO_CHECK_CLIENT *clients)
{
    std::string expected;
    size_t open = answer.find("user_info_list");
    while ((open = answer.find('{', open)) != std::string::npos) {
        const size_t close = answer.find('}', open);
        if (close == std::string::npos) {
            break;
        }
        long subscribe = 0;
        char openid[128];
        const std::string entry = answer.substr(open, close - open);
        if (sscanf(entry.c_str(), // NOLINT(cert-err34-c)
                   "%*[^\"]\"subscribe\":%ld%*[^\"]\"openid\":\"%127[^\"]\"", &subscribe,
                   openid) == 2 &&
            subscribe == 0) {
            const TO_CHECK_CLIENT *client = clients;
            while (client != nullptr && strcmp(client->openid, openid) != 0) {
                client = client->next;
            }
            expected += client != nullptr ? std::string(1, (char)client->mac[5]) : "";
        }
        open = close;
    }
    return expected;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    TO_CHECK_CLIENT longest = {.mac = {0, 0, 0, 0, 0, 'L'},
                               .openid = {},
                               .expire_min = 0,
                               .next = nullptr,
                               .express = nullptr};
    memset(longest.openid, 'o', sizeof longest.openid - 1);
    const TO_CHECK_CLIENT first = {.mac = {0, 0, 0, 0, 0, '1'},
                                   .openid = "o1",
                                   .expire_min = 0,
                                   .next = &longest,
                                   .express = nullptr};
    std::string answer((const char *)data, strnlen((const char *)data, size));
    const std::string expected = expect_deleted(answer, &first);
    deleted.clear();
    (void)wechat_evaluate_batch_answer(answer.data(), &first);
    if (deleted != expected) {
        __builtin_trap();
    }
    return 0;
}
