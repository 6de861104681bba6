// One input is a station's address and the answer about it, in that order.
#include <stdint.h>
#include <string.h>
#include <string>

#include "log/log.h"
#include "social/fbauth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct fbauth_attr attrs = {};
    if (size < sizeof attrs.mac) {
        return 0;
    }
    memcpy(attrs.mac, data, sizeof attrs.mac);
    const std::string answer((const char *)data + sizeof attrs.mac, size - sizeof attrs.mac);
    const char *text = answer.c_str();
    const char *key = strstr(text, "{\"valid\":");
    const bool removed =
        key != nullptr && (strncmp(key + 9, "false}", 6) == 0 || strcmp(key + 9, "false") == 0);
    tu_tmpbuf[0] = '\0';
    (void)pelkin_analysis_fbauth_resp(&attrs, text);
    // Nobody serves the station manager's socket: a removal ends with its own message.
    if (removed != (strncmp(tu_tmpbuf, "Failed to send del sta(", 23) == 0)) {
        __builtin_trap();
    }
    return 0;
}
