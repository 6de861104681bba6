/* The records that reach the daemon and leave it, and the texts of its servers, each built here. */
#ifndef PELKIN_TESTS_SUPPORT_MESSAGES_H
#define PELKIN_TESTS_SUPPORT_MESSAGES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wechat/wechat_msg.h"

namespace support
{

/* A station of a batch, and what its server says of it. */
struct Station {
    std::string token;
    std::string address; // its last bytes; zeros stand before them
    bool is_valid = false;
    uint32_t incoming = 0;
    uint32_t outgoing = 0;
};
using Stations = std::vector<Station>;

constexpr uint16_t TAG = 0xBEEF; // of a batch, and so of its report

/* The first `size` bytes of a record. */
template <typename Record> std::string bytes_of(const Record &record, size_t size = sizeof(Record))
{
    return {(const char *)&record, size};
}

/* An enveloped message of a module. */
std::string message(uint32_t msg_id, const std::string &payload, uint8_t src_module = 1);

/* A batch: its record with no byte behind the last station, but room for one; `sta_num` instead of
 * the true number; the text that goes to its server, and the server's answer. */
std::string batch(const Stations &stations, const std::string &secret = "s",
                  std::optional<int32_t> sta_num = std::nullopt);
std::string batch_text(const Stations &stations);
std::string batch_answer(const Stations &stations);

/* What the station manager gets: a report, a station's removal. */
std::string report(const Stations &stations);
std::string removal(const std::string &address);

/* A WeChat client whose following is to be checked; `delay` in minutes. */
wechat_check_follow_req follow_request(const std::string &address, const std::string &openid,
                                       const std::string &appid, const std::string &secret = "s",
                                       int32_t delay = 0);
std::string check_follow(const wechat_check_follow_req &request);

/* An HTTP request: `text` is its body, or goes behind the path. */
std::string request_text(bool is_post, const std::string &host, const std::string &path,
                         const std::string &text);

} // namespace support
#endif
