#include "social/reauth_request.h"

#include <inttypes.h>
#include <string.h>

#include "log/log.h"
#include "platform/cut_text.h"
#include "platform/url_encode.h"

static const size_t ENTRIES_TEXT_MAX = 65535;
static const size_t ENCODED_BYTE_SIZE = 3;

int32_t pelkin_count_reauth_sta(const struct reauth_attr *attrs)
{
    return attrs->sta_num < REAUTH_STA_MAX ? attrs->sta_num : REAUTH_STA_MAX;
}

void pelkin_cut_reauth_attr(struct reauth_attr *attrs, size_t length)
{
    const size_t head = offsetof(struct reauth_attr, sta);
    const size_t arrived = length > head ? (length - head) / sizeof attrs->sta[0] : 0;
    attrs->sta_num = pelkin_count_reauth_sta(attrs);
    if (attrs->sta_num > 0 && (size_t)attrs->sta_num > arrived) {
        attrs->sta_num = (int32_t)arrived;
    }
}

static void append_station(struct cut_text *text, const struct reauth_sta *sta,
                           const char *separator)
{
    cut_text_append(text, "\"%.*s\":{\"incoming\":\"%" PRIu32 "\",\"outgoing\":\"%" PRIu32 "\"}%s",
                    (int)sizeof sta->token, sta->token, sta->incoming, sta->outgoing, separator);
}

static void append_stations(struct cut_text *text, const struct reauth_attr *attrs)
{
    const int32_t count = pelkin_count_reauth_sta(attrs);
    int32_t i = 0;
    for (; i + 1 < count; i++) {
        append_station(text, &attrs->sta[i], ",");
    }
    append_station(text, &attrs->sta[i], "");
}

int32_t pelkin_build_reauth_data(char *out, size_t out_size, const struct reauth_attr *attrs)
{
    if (out == nullptr || attrs == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    char secret[REAUTH_SECRET_SIZE + 1] = ""; // ends even when the field does not
    memcpy(secret, attrs->secret, sizeof attrs->secret);
    char encoded[REAUTH_SECRET_SIZE * ENCODED_BYTE_SIZE];

    memset(out, 0, out_size);
    struct cut_text text = {.start = out, .size = out_size, .used = 0};
    cut_text_append(&text, "secret=%s&tokens={", urlEncode(secret, encoded, sizeof encoded));
    const size_t entries_end = text.used + ENTRIES_TEXT_MAX + 1;
    text.size = entries_end < out_size ? entries_end : out_size;
    append_stations(&text, attrs);
    text.size = out_size;
    cut_text_append(&text, "}");
    return 0;
}
