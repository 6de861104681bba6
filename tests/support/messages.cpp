#include "tests/support/messages.h"

#include <algorithm>

#include "core/ipc_msg.h"
#include "social/reauth_msg.h"

namespace support
{

static void copy_address(const std::string &address, uint8_t (&to)[PELKIN_MAC_SIZE])
{
    const size_t used = std::min(address.size(), sizeof to);
    (void)address.copy((char *)to + sizeof to - used, used);
}

std::string message(uint32_t msg_id, const std::string &payload, uint8_t src_module)
{
    const ipc_msg_hdr header = {.reserved0 = 0,
                                .src_module = src_module,
                                .reserved2 = 0,
                                .msg_id = msg_id,
                                .len = (uint32_t)payload.size()};
    return bytes_of(header) + payload;
}

std::string batch(const Stations &stations, const std::string &secret,
                  std::optional<int32_t> sta_num)
{
    reauth_attr head = {};
    head.reauth_tag = TAG;
    std::fill(std::begin(head.text), std::end(head.text), 'x');
    (void)secret.copy(head.secret, sizeof head.secret);
    head.sta_num = sta_num.value_or((int32_t)stations.size());
    std::string bytes = bytes_of(head, offsetof(reauth_attr, sta));
    for (const Station &station : stations) {
        reauth_sta sta = {};
        sta.incoming = station.incoming;
        sta.outgoing = station.outgoing;
        (void)station.token.copy(sta.token, sizeof sta.token);
        copy_address(station.address, sta.mac);
        bytes += bytes_of(sta);
    }
    bytes.resize(std::max(bytes.size(), offsetof(reauth_attr, sta) + sizeof(reauth_sta)));
    return bytes;
}

// The entries of an object whose keys are the tokens.
template <typename Value>
static std::string token_object(const Stations &stations, const Value &value_of)
{
    std::string entries;
    for (const Station &station : stations) {
        entries += (entries.empty() ? "\"" : ",\"") + station.token + "\":{" + value_of(station);
        entries += '}';
    }
    return "{" + entries + "}";
}

std::string batch_text(const Stations &stations)
{
    return "secret=s&tokens=" + token_object(stations, [](const Station &station) {
               return "\"incoming\":\"" + std::to_string(station.incoming) + "\",\"outgoing\":\"" +
                      std::to_string(station.outgoing) + "\"";
           });
}

std::string batch_answer(const Stations &stations)
{
    return "{\"tokens\":" +
           token_object(stations,
                        [](const Station &station) {
                            return std::string(station.is_valid ? "\"valid\":true"
                                                                : "\"valid\":false");
                        }) +
           "}";
}

std::string report(const Stations &stations)
{
    std::string payload = bytes_of((uint32_t)TAG) + bytes_of((uint32_t)stations.size());
    for (const Station &station : stations) {
        reauth_resp_sta sta = {.is_valid = station.is_valid ? 1 : 0, .mac = {}, .padding = {}};
        copy_address(station.address, sta.mac);
        payload += bytes_of(sta);
    }
    return message(PELKIN_MSG_REAUTH_RESP, payload, PELKIN_MODULE_ID);
}

std::string removal(const std::string &address)
{
    return message(KIVREN_MSG_DEL_STA_REQ, address, PELKIN_MODULE_ID);
}

wechat_check_follow_req follow_request(const std::string &address, const std::string &openid,
                                       const std::string &appid, const std::string &secret,
                                       int32_t delay)
{
    wechat_check_follow_req request = {};
    copy_address(address, request.mac);
    (void)openid.copy(request.openid, sizeof request.openid);
    (void)appid.copy(request.appid, sizeof request.appid);
    (void)secret.copy(request.appsecret, sizeof request.appsecret);
    request.delay = delay;
    return request;
}

std::string check_follow(const wechat_check_follow_req &request)
{
    return message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, bytes_of(request));
}

std::string request_text(bool is_post, const std::string &host, const std::string &path,
                         const std::string &text)
{
    const std::string head = is_post ? "POST " + path : "GET " + path;
    return head + (is_post || text.empty() ? "" : "?" + text) + " HTTP/1.0\r\nHost: " + host +
           "\r\nConnection: keep-alive\r\nUser-Agent: pelkin\r\n"
           "Content-type: application/x-www-form-urlencoded\r\nContent-Length: " +
           std::to_string(is_post ? text.size() : 0) + "\r\n\r\n" + (is_post ? text : "");
}

} // namespace support
