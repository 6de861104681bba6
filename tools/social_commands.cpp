#include "tools/social_commands.h"

#include "tools/exit_status.h"
#include "tools/kivren_view.h"
#include "tools/output.h"
#include "tools/own_socket.h"
#include "tools/stations.h"

// The head as far as the stations, then the stations themselves.
static std::string batch_data(const reauth_command &command,
                              const std::vector<reauth_sta> &stations)
{
    static reauth_attr head;
    head.reauth_tag = command.tag;
    command.secret.copy(head.secret, sizeof head.secret - 1);
    head.sta_num = (int32_t)stations.size();
    std::string data((const char *)&head, offsetof(reauth_attr, sta));
    return data.append((const char *)stations.data(), stations.size() * sizeof(reauth_sta));
}

// Sends the message; with `as_kivren`, shows what comes of it.
static int verify(const delivery &to, const http_request &request, const std::string &data,
                  bool as_kivren, const expected_message &expected)
{
    const std::string message = request_message(request, data);
    if (!as_kivren) {
        const int status = hand_over(to, message);
        if (status == STATUS_DONE) {
            say("handed over to pelkin, which tells the station manager; a failure is in pelkin's "
                "log only");
        }
        return status;
    }
    // Both are served before the request goes out, so that nothing is missed.
    const int kivren = serve_kivren();
    if (kivren < 0) {
        return STATUS_UNREACHABLE;
    }
    const int log = try_to_serve_log();
    const deadline until = deadline_in(to.timeout_s);
    int status = hand_over(to, message);
    if (status == STATUS_DONE) {
        request_watch watch = watch_request(request.url, request.msg_id);
        status = show_until(kivren, log, expected, &watch, until);
    }
    close_own_socket(log);
    close_own_socket(kivren);
    return status;
}

int run_reauth(const reauth_command &command)
{
    std::vector<reauth_sta> stations = command.stations;
    if (!command.stations_file.empty() && !read_stations(command.stations_file, &stations)) {
        return STATUS_USAGE;
    }
    if (stations.empty() || stations.size() > REAUTH_STA_MAX) {
        say("%zu stations: a batch has 1 to %d; name them with --station or --stations",
            stations.size(), REAUTH_STA_MAX);
        return STATUS_USAGE;
    }
    const http_request request = {.url = command.url,
                                  .msg_id = PELKIN_MSG_REAUTH_REQ,
                                  .resp_method = PELKIN_RESP_ANALYSE,
                                  .http_req_type = PELKIN_HTTP_POST,
                                  .file_path = ""};
    const expected_message expected = {
        .msg_id = PELKIN_MSG_REAUTH_RESP, .reauth_tag = command.tag, .mac = {}};
    return verify(command.to, request, batch_data(command, stations), command.as_kivren, expected);
}

int run_fbauth(const fbauth_command &command)
{
    const http_request request = {.url = command.url,
                                  .msg_id = PELKIN_MSG_FBAUTH_REQ,
                                  .resp_method = PELKIN_RESP_ANALYSE,
                                  .http_req_type = command.post ? PELKIN_HTTP_POST : 0,
                                  .file_path = ""};
    const expected_message expected = {
        .msg_id = KIVREN_MSG_DEL_STA_REQ, .reauth_tag = 0, .mac = command.mac};
    return verify(command.to, request, text_data(command.mac, command.text), command.as_kivren,
                  expected);
}
