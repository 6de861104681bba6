/*
 * The station manager's place taken, to see what the daemon sends it: batch reports and requests to
 * delete a station.
 */
#ifndef PELKIN_TOOLS_KIVREN_VIEW_H
#define PELKIN_TOOLS_KIVREN_VIEW_H

#include <string>

#include "core/ipc_msg.h"
#include "social/reauth_msg.h"
#include "tools/daemon_link.h"
#include "tools/failure.h"
#include "tools/text_fields.h"

/* What a request leads to: a report with this tag, or the removal of this station. */
struct expected_message {
    uint32_t msg_id;
    uint16_t reauth_tag;
    mac_address mac;
};

/* Serves the station manager's socket. The descriptor, or -1, said, when that can't be. */
int serve_kivren();

/*
 * Prints every message that arrives, until the expected one has or the daemon's log has told that
 * it won't: the request failed, or the server found the token good. `log` is the log service's
 * socket, or -1 when another program serves it. Returns an exit status; a failure has been said.
 */
int show_until(int kivren, int log, const expected_message &expected, request_watch *watch,
               deadline until);

/*
 * A message of the daemon in readable form, "" when it is none. `*is_expected` receives whether it
 * is the expected one.
 */
std::string message_text(const std::string &message, const expected_message &expected,
                         bool *is_expected);

#endif
