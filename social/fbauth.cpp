#include "social/fbauth.h"

#include <string.h>

#include "log/log.h"
#include "social/station_removal.h"

int32_t pelkin_analysis_fbauth_resp(const struct fbauth_attr *attrs, const char *resp)
{
    static const char opening[] = "{\"valid\":";
    static const char invalid[] = "false";
    static const size_t shown_most = 5; // of a value: how long it is, the server alone decides
    if (attrs == nullptr || resp == nullptr) {
        PELKIN_LOG_ERROR("Attributes should NOT be NULL.");
        return -1;
    }
    PELKIN_LOG_DEBUG("resp[%s].", resp);
    const char *key = strstr(resp, opening);
    if (key == nullptr) {
        PELKIN_LOG_ERROR("The response format is incorrect.");
        return -1;
    }
    const char *value = key + sizeof opening - 1;
    const size_t length = strcspn(value, "}");
    if (length == 0) {
        PELKIN_LOG_ERROR("The valid is invalid");
        return -1;
    }
    // The whole value: cut to the width of the expected ones, "falsehood" would read as "false".
    PELKIN_LOG_ERROR("The valid is %.*s", (int)(length < shown_most ? length : shown_most), value);
    if (length == sizeof invalid - 1 && memcmp(value, invalid, length) == 0) {
        (void)pelkin_del_sta_req(attrs->mac);
    }
    return 0;
}
