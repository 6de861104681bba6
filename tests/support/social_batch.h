/* Batches of stations as bytes on the wire, and the bytes that are to come of them. */
#ifndef PELKIN_TESTS_SUPPORT_SOCIAL_BATCH_H
#define PELKIN_TESTS_SUPPORT_SOCIAL_BATCH_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support
{

constexpr size_t BATCH_HEAD_SIZE = 264;
constexpr size_t BATCH_STA_SIZE = 80;

inline std::string bytes_of(uint32_t value)
{
    return std::string((const char *)&value, sizeof value);
}

/* The two changing bytes at the end of station i's address. */
inline std::string address_end(size_t i)
{
    return {(char)(i >> 8), (char)i};
}

/*
 * Tag 0xBEEF; station i has the counters UINT32_MAX - i and i. No byte lies behind the last one.
 * `sta_num`: instead of the true one.
 */
inline std::string make_batch(const std::vector<std::string> &tokens,
                              std::optional<int32_t> sta_num = std::nullopt,
                              const std::string &secret = "s")
{
    std::string batch = "\xEF\xBE" + std::string(129, 'x') + secret;
    batch.resize(260);
    batch += bytes_of((uint32_t)sta_num.value_or((int32_t)tokens.size()));
    for (size_t i = 0; i < tokens.size(); i++) {
        batch += tokens[i];
        batch.resize(BATCH_HEAD_SIZE + i * BATCH_STA_SIZE + 69);
        batch += address_end(i) + '\0' + bytes_of(UINT32_MAX - (uint32_t)i) + bytes_of((uint32_t)i);
    }
    // Room for one station is always there.
    batch.resize(std::max(batch.size(), BATCH_HEAD_SIZE + BATCH_STA_SIZE));
    return batch;
}

/* The whole text for the server, of a batch with the secret "s". */
inline std::string batch_body(const std::vector<std::string> &tokens)
{
    std::string body = "secret=s&tokens={";
    for (size_t i = 0; i < tokens.size(); i++) {
        body += (i > 0 ? ",\"" : "\"") + tokens[i] + "\":{\"incoming\":\"" +
                std::to_string(UINT32_MAX - i) + "\",\"outgoing\":\"" + std::to_string(i) + "\"}";
    }
    return body + "}";
}

/* Station and verdict of each entry of a report. */
using Report = std::vector<std::pair<int, int>>;

/* The datagram of a report; "" for none. */
inline std::string report_bytes(const Report &report)
{
    const auto count = (uint32_t)report.size();
    std::string bytes = {'\0', '\x15', '\0', '\0', '\x03', '\0', '\0', '\x15'};
    bytes += bytes_of(8 + 12 * count) + "\xEF\xBE" + std::string(2, '\0') + bytes_of(count);
    for (const auto &[station, verdict] : report) {
        bytes += bytes_of((uint32_t)verdict) + std::string(4, '\0') + address_end((size_t)station) +
                 std::string(2, '\0');
    }
    return report.empty() ? "" : bytes;
}

} // namespace support
#endif
