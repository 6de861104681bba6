/* `pelkinctl reauth` and `pelkinctl fbauth`: token verification through the daemon. */
#ifndef PELKIN_TOOLS_SOCIAL_COMMANDS_H
#define PELKIN_TOOLS_SOCIAL_COMMANDS_H

#include <string>
#include <vector>

#include "social/reauth_msg.h"
#include "tools/http_command.h"

struct reauth_command {
    std::string url;
    std::string secret;
    uint16_t tag = 0;
    std::vector<reauth_sta> stations;
    std::string stations_file; /* "": none */
    bool as_kivren = false;
    delivery to;
};
int run_reauth(const reauth_command &command);

struct fbauth_command {
    std::string url;
    mac_address mac = {};
    std::string text;
    bool post = false; /* the text as a body instead of a query */
    bool as_kivren = false;
    delivery to;
};
int run_fbauth(const fbauth_command &command);

#endif
