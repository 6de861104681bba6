#include "social/reauth_answer.h"

#include <string.h>

#include "log/field.h"
#include "log/log.h"
#include "social/reauth_report.h"
#include "social/reauth_request.h"

static const size_t RESULT_SIZE = 6; // "false" and its NUL

// One entry as it stands in the answer. The texts are cut to their fields, the lengths are not; a
// part that could not be read is empty.
struct answer_entry {
    char token[REAUTH_TOKEN_SIZE];
    char result[RESULT_SIZE];
    size_t token_length;
    size_t result_length;
    const char *end; // behind the closing brace; set when both parts are there
};

static void copy_cut(char *field, size_t size, const char *text, size_t length)
{
    const size_t kept = length < size ? length : size - 1;
    memcpy(field, text, kept);
    field[kept] = '\0';
}

static void read_entry(const char *cursor, struct answer_entry *entry)
{
    static const char middle[] = "\":{\"valid\":";
    *entry = {};
    if (*cursor != '"') {
        return;
    }
    const char *token = cursor + 1;
    entry->token_length = strcspn(token, "\"");
    copy_cut(entry->token, sizeof entry->token, token, entry->token_length);
    const char *behind = token + entry->token_length;
    if (entry->token_length == 0 || strncmp(behind, middle, sizeof middle - 1) != 0) {
        return;
    }
    const char *result = behind + sizeof middle - 1;
    entry->result_length = strcspn(result, "}");
    copy_cut(entry->result, sizeof entry->result, result, entry->result_length);
    const char *brace = result + entry->result_length;
    entry->end = *brace == '}' ? brace + 1 : brace; // an answer that was cut has no brace here
}

const struct reauth_sta *pelkin_find_sta_by_token(const struct reauth_attr *attrs,
                                                  const char *token)
{
    const size_t length = strlen(token);
    if (length >= REAUTH_TOKEN_SIZE) {
        return nullptr;
    }
    // Tokens of one issuer begin alike: the last character tells most of them apart.
    const size_t last = length > 0 ? length - 1 : 0;
    const int32_t count = pelkin_count_reauth_sta(attrs);
    for (int32_t i = 0; i < count; i++) {
        const char *candidate = attrs->sta[i].token;
        if (candidate[last] == token[last] && memcmp(candidate, token, length + 1) == 0) {
            return &attrs->sta[i];
        }
    }
    return nullptr;
}

static void report_entry(const struct reauth_attr *attrs, const struct answer_entry *entry,
                         struct reauth_resp *out)
{
    if (entry->token_length >= sizeof entry->token ||
        entry->result_length >= sizeof entry->result) {
        return;
    }
    const struct reauth_sta *found = pelkin_find_sta_by_token(attrs, entry->token);
    if (found == nullptr) {
        return;
    }
    const uint8_t *mac = found->mac;
    PELKIN_LOG_AS("pelkin_analysis_reauth_resp", DEBUG, "find station[" PELKIN_MAC_FORMAT "]",
                  PELKIN_MAC(mac));
    struct reauth_resp_sta *reported = &out->sta[out->sta_num++];
    *reported = {};
    memcpy(reported->mac, mac, sizeof reported->mac);
    reported->is_valid = strcmp(entry->result, "false") == 0 ? 0 : 1;
}

static const char *find_next(const char *cursor, const struct answer_entry *entry)
{
    if (entry->end == nullptr || entry->result_length == 0) {
        const char *comma = strchr(cursor, ',');
        return comma != nullptr ? comma + 1 : nullptr;
    }
    return *entry->end == ',' ? entry->end + 1 : entry->end;
}

int32_t pelkin_analysis_reauth_resp(const struct reauth_attr *attrs, const char *resp,
                                    struct reauth_resp *out)
{
    static const char opening[] = "{\"tokens\":{";
    if (attrs == nullptr || resp == nullptr || out == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    if (attrs->sta_num < 1) {
        return -1;
    }
    PELKIN_LOG_DEBUG("resp[%s].", resp);
    const char *cursor = strstr(resp, opening);
    if (cursor == nullptr) {
        PELKIN_LOG_ERROR("The response format is incorrect.");
        return -1;
    }
    cursor += sizeof opening - 1;
    while (cursor != nullptr && *cursor != '}' && out->sta_num < REAUTH_RESP_STA_MAX) {
        struct answer_entry entry;
        read_entry(cursor, &entry);
        PELKIN_LOG_DEBUG("token[%s] result[%s].", entry.token, entry.result);
        if (entry.result_length > 0) {
            report_entry(attrs, &entry, out);
        }
        cursor = find_next(cursor, &entry);
    }
    out->reauth_tag = attrs->reauth_tag;
    return 0;
}

int32_t pelkin_check_reauth_resp(const struct reauth_attr *attrs, const char *resp,
                                 int32_t resp_len)
{
    if (attrs == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    PELKIN_LOG_DEBUG("rcv: buf=%s, len=%d", resp, resp_len);
    // Entries are written whole when they are added, so the head alone has to start at zero.
    struct reauth_resp report;
    memset(&report, 0, offsetof(struct reauth_resp, sta));
    (void)pelkin_analysis_reauth_resp(attrs, resp, &report);
    if (report.sta_num > 0 && pelkin_send_reauth_resp(&report) != 0) {
        PELKIN_LOG_ERROR("Failed to send reauth response.");
    }
    return 0;
}
