#include "tools/check_follow.h"

#include <algorithm>
#include <vector>

#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"

// Copies a text of 1 to `size` - 1 characters into a zeroed field; says why when it is none.
static std::string fill(char *field, size_t size, const char *name, const std::string &text)
{
    if (text.empty() || text.size() >= size) {
        return std::string(name) + " must have 1 to " + std::to_string(size - 1) + " characters";
    }
    text.copy(field, size - 1);
    return "";
}

// The parts in the order of a file's line. Returns what is wrong with them, "" when nothing is.
static std::string fill_client(const std::vector<std::string> &parts,
                               wechat_check_follow_req *client)
{
    mac_address mac = {};
    *client = {};
    if (parts.size() != 5) {
        return "write MAC,OPENID,APPID,SECRET,DELAY";
    }
    if (!parse_mac(parts[0], &mac)) {
        return "the MAC must look like 02:00:00:00:00:01";
    }
    std::copy(mac.begin(), mac.end(), client->mac);
    for (const std::string &fault :
         {fill(client->openid, sizeof client->openid, "the openid", parts[1]),
          fill(client->appid, sizeof client->appid, "the appid", parts[2]),
          fill(client->appsecret, sizeof client->appsecret, "the secret", parts[3])}) {
        if (!fault.empty()) {
            return fault;
        }
    }
    return parse_int32(parts[4], &client->delay) ? "" : "the delay must be a number of minutes";
}

static bool read_clients(const std::string &path, std::vector<wechat_check_follow_req> *clients)
{
    std::vector<numbered_line> lines;
    if (!read_lines(path, &lines)) {
        return false;
    }
    for (const numbered_line &line : lines) {
        const std::string fault = fill_client(split_at_commas(line.text), &clients->emplace_back());
        if (!fault.empty()) {
            say("%s:%zu: %s", path.c_str(), line.number, fault.c_str());
            return false;
        }
    }
    return true;
}

static int send_all(const delivery &to, const std::vector<wechat_check_follow_req> &clients)
{
    const int link = open_link(to.socket);
    if (link < 0) {
        return STATUS_UNREACHABLE;
    }
    size_t sent = 0;
    int status = STATUS_DONE;
    while (status == STATUS_DONE && sent < clients.size()) {
        const std::string_view payload((const char *)&clients[sent], sizeof clients[sent]);
        status = send_message(link, to.socket, envelop(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, payload),
                              deadline_in(to.timeout_s));
        sent += status == STATUS_DONE ? 1 : 0;
    }
    close_own_socket(link);
    say("handed over to pelkin: %zu of %zu; it asks the station manager to delete clients that "
        "have "
        "not followed, and logs what fails",
        sent, clients.size());
    return status;
}

int run_check_follow(const follow_command &command)
{
    std::vector<wechat_check_follow_req> clients;
    if (!command.file.empty()) {
        if (!read_clients(command.file, &clients)) {
            return STATUS_USAGE;
        }
        if (clients.empty()) {
            say("%s holds no client", command.file.c_str());
            return STATUS_USAGE;
        }
    } else {
        const std::string fault =
            fill_client({command.mac, command.openid, command.appid, command.secret, command.delay},
                        &clients.emplace_back());
        if (!fault.empty()) {
            say("%s", fault.c_str());
            return STATUS_USAGE;
        }
    }
    return send_all(command.to, clients);
}
