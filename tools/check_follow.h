/* `pelkinctl check-follow`: clients whose following of a WeChat account is to be checked. */
#ifndef PELKIN_TOOLS_CHECK_FOLLOW_H
#define PELKIN_TOOLS_CHECK_FOLLOW_H

#include <string>

#include "tools/http_command.h"
#include "wechat/wechat_msg.h"

struct follow_command {
    std::string mac, openid, appid, secret, delay; /* of one client; "" each with a file */
    std::string file;                              /* of many; "": none */
    delivery to;
};
int run_check_follow(const follow_command &command);

#endif
