// One input is a batch and the answer to it: the length of the batch (16 bits, host order), that
// many bytes of batch, and the answer's text in the rest.
#include <algorithm>
#include <memory>
#include <stdint.h>
#include <string.h>
#include <string>

#include "social/reauth_answer.h"
#include "social/reauth_request.h"

// Nothing lies behind the batch, so that the sanitizer sees every read too far.
static std::unique_ptr<uint64_t[]> copy_batch(const uint8_t *data, size_t length)
{
    const size_t least = offsetof(struct reauth_attr, sta) + sizeof(struct reauth_sta);
    auto copy = std::make_unique<uint64_t[]>((std::max(length, least) + 7) / 8);
    memcpy(copy.get(), data, length);
    return copy;
}

static void check_body(const struct reauth_attr *attrs)
{
    static char body[PELKIN_MSG_MAX];
    memset(body, 'x', sizeof body);
    if (pelkin_build_reauth_data(body, sizeof body, attrs) != 0 ||
        memchr(body, '\0', sizeof body) == nullptr) {
        __builtin_trap();
    }
}

static void check_report(const struct reauth_attr *attrs, const char *answer)
{
    static struct reauth_resp report;
    report = {};
    const int32_t rc = pelkin_analysis_reauth_resp(attrs, answer, &report);
    if (report.sta_num < 0 || report.sta_num > REAUTH_RESP_STA_MAX ||
        (rc != 0 && report.sta_num != 0)) {
        __builtin_trap();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uint16_t length = 0;
    if (size < sizeof length) {
        return 0;
    }
    memcpy(&length, data, sizeof length);
    data += sizeof length;
    size -= sizeof length;
    const size_t arrived = std::min({(size_t)length, size, (size_t)PELKIN_MSG_MAX});
    const auto batch = copy_batch(data, arrived);
    auto *attrs = reinterpret_cast<struct reauth_attr *>(batch.get());
    pelkin_cut_reauth_attr(attrs, arrived);
    check_body(attrs);

    const std::string answer((const char *)data + arrived, size - arrived);
    check_report(attrs, answer.c_str());
    (void)pelkin_check_reauth_resp(attrs, answer.c_str(), (int32_t)answer.size());
    return 0;
}
