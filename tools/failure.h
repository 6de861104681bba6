/*
 * Why a request has failed. The daemon never tells a requester, but its log does, under the name of
 * the server; so whoever waits for an answer reads the log meanwhile, if nobody else does.
 */
#ifndef PELKIN_TOOLS_FAILURE_H
#define PELKIN_TOOLS_FAILURE_H

#include <optional>
#include <string>
#include <string_view>

#include "tools/daemon_link.h"
#include "tools/log_records.h"

/* What a message at error level says went wrong, in a few words; null when it tells of nothing. */
const char *failure_cause(std::string_view message);

/* Whether it says that a verification server's answer could not be read. */
bool is_no_verdict(std::string_view message);

/* What the log has told of one request so far. */
struct request_watch {
    std::string server; /* HOST:PORT, as the daemon writes it */
    uint32_t msg_id = 0;
    std::string cause;        /* the latest, with the daemon's own words; "" as long as none is */
    pid_t daemon = 0;         /* whose threads are looked at; 0: not known yet */
    bool is_released = false; /* the server's worker ends because it has had nothing to do */
    /*
     * Set when the worker has ended. The request is lost then, unless an answer or a new worker
     * shows until this moment: the request may have come too late for the ended one.
     */
    std::optional<deadline> lost_at;
};

/* A watch of a request to `url`, whose faults have been looked for. */
request_watch watch_request(const std::string &url, uint32_t msg_id);

/* Takes a record into account. */
void note(request_watch *watch, const log_record &record);

/*
 * Where the log can't be read: once the daemon has taken the request that was sent over `link`, the
 * server must have a worker, a thread of its name. It has none when its worker has ended.
 */
void look_for_worker(request_watch *watch, int link);

/* Whether the worker has ended, and long enough ago. */
bool is_lost(const request_watch &watch);

/* What to say of one that is lost. */
std::string failure_text(const request_watch &watch);

#endif
