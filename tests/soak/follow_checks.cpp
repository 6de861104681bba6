#include "tests/soak/follow_checks.h"

#include "tests/soak/faults.h"
#include "tests/soak/pause.h"
#include "wechat/wechat_msg.h"

namespace soak
{

static const uint32_t ACCOUNTS = 30; // more than stay in the daemon while they are idle
static const char API_ADDRESS[] = "127.44.0.1";

static void answer_api(FollowChecks *checks, support::Connection &connection);

FollowChecks::FollowChecks()
    : server({.address = API_ADDRESS, .tls = true},
             [this](support::Connection &connection) { answer_api(this, connection); })
{
}

static std::string openid_of(uint32_t number)
{
    return std::string("o").append(std::to_string(number));
}

std::string FollowChecks::register_client()
{
    const std::lock_guard<std::mutex> lock(guard);
    const uint32_t number = next++;
    (void)clients[number];
    registered++;
    wechat_check_follow_req request = {};
    (void)station_address(number, FOLLOW_STATION).copy((char *)request.mac, sizeof request.mac);
    (void)openid_of(number).copy(request.openid, sizeof request.openid);
    (void)("app" + std::to_string(draw(number, "account", ACCOUNTS)))
        .copy(request.appid, sizeof request.appid);
    (void)("secret" + std::to_string(draw(number, "secret", 3)))
        .copy(request.appsecret, sizeof request.appsecret);
    request.delay = (int32_t)draw(number, "delay", 4) - 1;
    return support::message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ,
                            std::string((const char *)&request, sizeof request));
}

void FollowChecks::withdraw_client()
{
    const std::lock_guard<std::mutex> lock(guard);
    (void)clients.erase(--next);
    registered--;
}

static std::string token_answer(uint32_t one)
{
    // Some serve for a single check.
    return std::string(R"({"access_token":"token","expires_in":)") +
           (one % 3 == 0 ? "600}" : "7200}");
}

static std::string batch_answer(FollowChecks *checks, const std::string &request)
{
    static const std::string key = "{\"openid\": \"o";
    std::string entries;
    const std::lock_guard<std::mutex> lock(checks->guard);
    for (size_t at = request.find(key); at != std::string::npos; at = request.find(key, at + 1)) {
        const auto number = (uint32_t)std::strtoul(request.c_str() + at + key.size(), nullptr, 10);
        const auto found = checks->clients.find(number);
        if (found == checks->clients.end() || found->second.is_freed) {
            report_fault("the API is asked about nobody: " + request.substr(at, 40));
            continue;
        }
        found->second.is_asked = true;
        entries += (entries.empty() ? "{\"subscribe\":" : ",{\"subscribe\":") +
                   std::string(is_follower(number) ? "1" : "0") + ",\"openid\":\"" +
                   openid_of(number) + "\"}";
    }
    return "{\"user_info_list\":[" + entries + "]}";
}

// Mostly well.
static void answer_api(FollowChecks *checks, support::Connection &connection)
{
    static std::atomic<uint32_t> asked{0};
    const uint32_t time = ++asked;
    const std::string request = connection.read_request();
    const std::string body = request.find("/cgi-bin/token?") != std::string::npos
                                 ? token_answer(draw(time, "token", 100))
                                 : batch_answer(checks, request);
    const std::string whole = support::answer(body);
    const uint32_t one = checks->is_calm ? 99 : draw(time, "API", 100);
    if (one < 4) {
        return; // closes without a word
    }
    if (one < 8) {
        (void)connection.send(support::answer(R"({"errcode":-1,"errmsg":"system busy"})"));
    } else if (one < 12) {
        (void)connection.send(whole.substr(0, whole.size() - body.size() / 2));
    } else if (one == 12) {
        pause_or_cut(connection.fd, 11000);
    } else {
        (void)connection.send(whole);
    }
}

void FollowChecks::note(uint32_t number, bool FollowClient::*what)
{
    const std::lock_guard<std::mutex> lock(guard);
    const auto found = clients.find(number);
    if (found == clients.end() || found->second.is_freed || found->second.*what) {
        report_fault("the daemon speaks of a client that does not wait, or again: " +
                     std::to_string(number));
        return;
    }
    found->second.*what = true;
}

void FollowChecks::take_removal(uint32_t number)
{
    const std::lock_guard<std::mutex> lock(guard);
    const auto found = clients.find(number);
    if (found == clients.end() || found->second.is_removed || !found->second.is_asked ||
        is_follower(number)) {
        report_fault("kivren was asked to remove a client that follows, number " +
                     std::to_string(number));
        return;
    }
    found->second.is_removed = true;
    removed++;
}

std::vector<uint32_t> FollowChecks::list_freed()
{
    const std::lock_guard<std::mutex> lock(guard);
    std::vector<uint32_t> numbers;
    for (const auto &[number, client] : clients) {
        if (client.is_freed) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

void FollowChecks::settle_freed(const std::vector<uint32_t> &numbers)
{
    const std::lock_guard<std::mutex> lock(guard);
    for (const uint32_t number : numbers) {
        const FollowClient &client = clients.at(number);
        unchecked += client.is_unchecked ? 1 : 0;
        const bool is_done =
            client.is_asked && (is_follower(number) || client.is_removed || client.removal_failed);
        if (!client.is_added || (!client.is_unchecked && !is_done)) {
            report_fault("a client is forgotten and was not checked: " + std::to_string(number));
        }
        (void)clients.erase(number);
    }
}

size_t FollowChecks::count_open()
{
    const std::lock_guard<std::mutex> lock(guard);
    return clients.size();
}

std::string FollowChecks::summary()
{
    const std::lock_guard<std::mutex> lock(guard);
    return "follow checks: " + std::to_string(registered) + " clients, " + std::to_string(removed) +
           " removed, " + std::to_string(unchecked) + " left unchecked by errors of the API\n";
}

} // namespace soak
