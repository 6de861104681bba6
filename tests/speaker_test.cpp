// Whom the lines of the running daemon name: the operation that readers know, whatever helper holds
// the statement.
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "social/reauth_msg.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"
#include "wechat/wechat_msg.h"

using namespace support;

static const char *const LINES[] = {
    "pelkin_rcv_ipc_msg():Received msg from module ",
    "pelkin_print_http_req_msg():HTTP request message: resp_method[",
    "social_media_req_msg_proc():fill http task failed.",
    "social_media_req_msg_proc():send task to thread OK. msg_id:",
    "social_media_req_msg_proc():failed to send task to thread. msg_id:15000009, thread should "
    "exit",
    "pelkin_print_task():task: HTTP HEAD: ",
    "pelkin_find_a_thread():can't find Thread for 127.0.0.1:80",
    "pelkin_create_a_thread():Init thread task slots to 100",
    "pelkin_create_a_thread():Add new social_media_thread: 127.0.0.1:80",
    "pelkin_print_all_thread_record():thread RECOED[1]: ",
    "send_data():failed to send data, err(32):",
    "pelkin_set_log_level():received SIGUSR1, set log_level = 7",
    "pelkin_set_debug_switch():received SIGUSR2, set ",
    "pelkin_vokmon_reply():Pelkin udpated timestamp ",
    "social_media_thread():thread begin: 127.0.0.1:80",
    "social_media_thread():thread 127.0.0.1:80 received a task, ",
    "social_media_thread():rcv: len[",
    "social_media_thread():Will send response to file: ",
    "social_media_thread():Will send response back to the socket.",
    "social_media_thread():thread 127.0.0.1:80 finished task ",
    "social_media_thread():can't connect to 127.0.8.1:80",
    "social_media_thread():Send/Recv http(s) failed.",
    "social_media_thread():thread exit: 127.0.8.1:80",
    "pelkin_connect_tcp_socket():connect fail. errno=111, errmsg:Connection refused",
    "pelkin_connect_tcp_socket():can't get \"",
    "pelkin_send_to_file():make directory failed:/tmp/none/none.",
    "pelkin_send_to_socket():failed to send ipc msg.",
    "pelkin_send_ipc_msg():failed to send ipc msg.",
    "_pelkin_send_recv():Send http request:[len=",
    "_pelkin_send_recv():send http request fail.",
    "_pelkin_send_recv():to retry, round 1",
    "_pelkin_send_recv():Recv http response: [len=",
    "_pelkin_send_recv():can't find 2 CRLF in the response.",
    "pelkin_recv_http_rsp():socket closed.",
    "pelkin_recv_https_rsp():SSL read success. rc=",
    "pelkin_recv_https_rsp():read completed. (rcveive len[",
    "pelkin_send_https_req():SSL write success",
    "pelkin_get_http_head_len():HTTP HEAD length is ",
    "pelkin_get_http_data_len():HTTP BODY length is ",
    "pelkin_analysis_fbauth_resp():The valid is false",
    "pelkin_del_sta_req():Failed to send del sta(mac:02:00:00:00:00:01) request to kivren.",
    "pelkin_check_reauth_resp():rcv: buf=",
    "pelkin_analysis_reauth_resp():find station[00:00:00:00:00:00]",
    "pelkin_send_reauth_resp():Failed to send request to kivren.",
    "pelkin_check_reauth_resp():Failed to send reauth response.",
    "wechat_print_req_msg():wechat check-follow request message: client mac:",
    "wechat_req_msg_proc():added new appid(a, ",
    "wechat_req_msg_proc():appsecret of appid(a) changed",
    "wechat_req_msg_proc():added new client(addr:",
    "wechat_send_recv():can't connect to ",
    "wechat_check_clients_of_one_account():begin clients check for appid:a.",
    "wechat_check_clients_of_one_account():failed to check client(mac:",
    "wechat_check_clients_of_one_account():to free client(addr:",
};

// The road that an answer takes follows from the request's path.
static void serve(Connection &connection)
{
    for (std::string request = connection.read_request(); !request.empty();
         request = connection.read_request()) {
        if (contains(request, "/noblank")) {
            (void)connection.send("no head");
            return;
        }
        std::string body = "body";
        if (contains(request, "/fbauth")) {
            body = "{\"valid\":false}";
        } else if (contains(request, "/reauth")) {
            body = "{\"tokens\":{\"t\":{\"valid\":true}}}";
        }
        (void)connection.send(answer(body));
        if (contains(request, "/close")) {
            return;
        }
    }
}

static void ask_for_all(const Requester &requester)
{
    reauth_attr batch = {};
    batch.sta_num = 1;
    batch.sta[0].token[0] = 't';
    const std::string attributes = bytes_of(batch, offsetof(reauth_attr, sta) + sizeof(reauth_sta));
    const Request requests[] = {
        {.url = "http://"},
        {.url = "127.0.0.1/file", .resp_method = PELKIN_RESP_FILE, .file_path = "/tmp/none/none/f"},
        {.url = "127.0.8.1/nobody"},
        {.url = "127.0.0.1/fbauth",
         .text = "t",
         .msg_id = PELKIN_MSG_FBAUTH_REQ,
         .resp_method = PELKIN_RESP_ANALYSE},
        {.url = "127.0.0.1/reauth",
         .msg_id = PELKIN_MSG_REAUTH_REQ,
         .resp_method = PELKIN_RESP_ANALYSE,
         .data = attributes},
    };
    for (const Request &request : requests) {
        EXPECT_TRUE(requester.send(request));
    }
    {
        const Requester gone("/tmp/gone");
        EXPECT_TRUE(gone.send(Request{.url = "127.0.0.2/late"}));
    }
    wechat_check_follow_req follow = {};
    for (const char secret : {'1', '2'}) {
        follow.appid[0] = 'a';
        follow.appsecret[0] = secret;
        EXPECT_TRUE(requester.send(message(PELKIN_MSG_WECHAT_CHECK_FOLLOW_REQ, bytes_of(follow))));
    }
    EXPECT_TRUE(requester.send(message(VOKMON_MSG_PROBE, ""), PELKIN_MONITOR_SOCKET_PATH));
    EXPECT_TRUE(requester.receive().has_value());
    EXPECT_EQ(requester.ask({.url = "127.0.0.1/close"}), "body");
    EXPECT_EQ(requester.ask({.url = "127.0.0.1/again"}), "body");
    EXPECT_EQ(requester.ask({.url = "https://127.0.0.1/p"}), "body");
    EXPECT_TRUE(requester.send(Request{.url = "127.0.0.1/noblank"}));
}

TEST(Lines, NameTheOperationThatSpeaks)
{
    SyslogSink log;
    write_file("/etc/hosts", "127.0.0.1 localhost\n");
    Server plain({}, serve);
    Server tls({.tls = true}, serve);
    std::atomic<bool> is_gone = false;
    Server late({.address = "127.0.0.2"}, [&](Connection &connection) {
        EXPECT_TRUE(wait_until([&] { return is_gone.load(); }));
        serve(connection);
    });
    Daemon daemon;
    daemon.set_trace_level(7, log);
    ASSERT_EQ(kill(daemon.pid, SIGUSR2), 0);
    const Requester requester;
    ask_for_all(requester);
    is_gone = true;
    EXPECT_TRUE(wait_until([&] { // its worker tells of its end a moment before
        EXPECT_TRUE(requester.send(Request{.url = "127.0.8.1/nobody"}));
        return log.count("thread should exit already") > 0;
    }));
    for (const char *line : LINES) {
        EXPECT_TRUE(log.wait_for(line, 1, 40)) << line; // a follow check takes 30 seconds to come
    }
}
