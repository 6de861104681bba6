// The running daemon against requesters that mean harm, or die at the wrong moment.
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

TEST(HostileCaller, HostsThatAreNoneReachNeitherAWorkerNorALogLine)
{
    SyslogSink log;
    Daemon daemon;
    daemon.set_trace_level(7, log);
    Server server({}, serve_bodies(body_of));
    const Requester requester;
    const std::string hosts[] = {"127.0.0.1\r\nX-Mark: y", "127.0.0.1\nX-Mark",
                                 "127.0.0.1 X-Mark",       "\x01",
                                 "127.0.0.1\x7f",          "caf\xc3\xa9"};
    for (const std::string &host : hosts) {
        EXPECT_TRUE(requester.send(Request{.url = "http://" + host + "/p"}));
    }
    EXPECT_TRUE(log.wait_for("fill http task failed.", std::size(hosts)));
    EXPECT_EQ(log.count("pelkin_fill_http_task():host refused: byte 0x0d at 9 is in no name."), 1u);
    EXPECT_EQ(log.count("thread begin"), 0u);
    EXPECT_EQ(log.count("127.0.0.1\r\nX-Mark") + log.count("127.0.0.1\nX-Mark"), 0u);
    EXPECT_EQ(requester.ask({.url = "127.0.0.1/p", .text = "served", .http_req_type = 1}),
              "served");
    EXPECT_TRUE(requester.send(Request{.url = "127.0.0.1:8080/p"})) << "a port stays in the host";
    EXPECT_TRUE(log.wait_for("can't get \"127.0.0.1:8080\" host entry"));
}

TEST(HostileCaller, AnswersThatAreRequestsDoNotGoRoundAndNoneGoesThroughALink)
{
    static const std::string name = "/run/vok/turncoat";
    SyslogSink log;
    Daemon daemon;
    for (const bool symbolic : {false, true}) {
        Requester requester(name);
        const Request request = {.url = "127.0.0.1/p"};
        Server server({}, serve_bodies([&](const std::string &) {
                          (void)unlink(name.c_str());
                          EXPECT_EQ((symbolic ? symlink : link)(PELKIN_SOCKET_PATH, name.c_str()),
                                    0);
                          std::string body = datagram(request);
                          body[0] = '\x01'; // a zero would bring the answer's head along
                          return body;
                      }));
        EXPECT_TRUE(requester.send(request));
        EXPECT_TRUE(log.wait_for(symbolic ? "the requester's name is a symbolic link."
                                          : "from the daemon's own socket dropped."));
        const Requester other;
        EXPECT_TRUE(other.send(Request{.url = "http://"})); // told of behind what looped
        EXPECT_TRUE(log.wait_for("fill http task failed.", symbolic ? 2 : 1));
        EXPECT_EQ(log.count("from the daemon's own socket dropped."), 1u);
        EXPECT_EQ(server.connections, 1);
    }
}

TEST(HostileCaller, UnreadAnswersHoldABoundedPartOfMemoryAndLeaveRoomForMessages)
{
    static const size_t ANSWER = 60000;
    static const size_t BUDGET = 64u << 20;
    SyslogSink log;
    Server server({}, serve_bodies([](const std::string &request) {
                      return contains(request, "fbauth") ? "{\"valid\":false}"
                                                         : std::string(ANSWER, 'x');
                  }));
    Daemon daemon;
    daemon.set_trace_level(7, log);
    std::vector<std::unique_ptr<Requester>> silent;
    while (log.count("answer dropped: unread ones hold") == 0 && silent.size() * ANSWER < BUDGET) {
        silent.push_back(
            std::make_unique<Requester>("/tmp/silent" + std::to_string(silent.size())));
        for (int i = 0; i < 8; i++) {
            EXPECT_TRUE(silent.back()->send(Request{.url = "127.0.0.1/p"}));
        }
    }
    EXPECT_GT(log.count("pelkin_send_to_socket():failed to send ipc msg."), 0u);
    Requester manager(KIVREN_SOCKET_PATH);
    EXPECT_TRUE(silent[0]->send(Request{.url = "127.0.0.1/fbauth",
                                        .text = "t",
                                        .msg_id = PELKIN_MSG_FBAUTH_REQ,
                                        .resp_method = PELKIN_RESP_ANALYSE}));
    EXPECT_TRUE(manager.receive().has_value()) << "the station manager's messages keep room";
    EXPECT_TRUE(wait_until([&] { // nothing that comes while they read
        return log.count("finished task (msg_id:15000009)") +
                   log.count("failed to send task to thread. msg_id:15000009") ==
               8 * silent.size();
    }));
    size_t unread = 0;
    for (const auto &requester : silent) {
        for (; requester->receive(0); unread++) {
        }
    }
    EXPECT_LT(unread * ANSWER, BUDGET / 2 + 10 * ANSWER);
    EXPECT_EQ(silent[0]->ask({.url = "127.0.0.1/p"}).size(), ANSWER) << "all is as before";
}

TEST(HostileCaller, WhatEndedWorkersHoldIsGivenToNewOnes)
{
    SyslogSink log;
    Server server({}, serve_bodies(body_of));
    Daemon daemon({"bash", "-c", "ulimit -n 64; exec PELKIN"});
    const Requester requester;
    for (int i = 1; i <= 100; i++) {
        const std::string host = "127.0.7." + std::to_string(i);
        EXPECT_TRUE(requester.send(Request{.url = host + "/nobody"}));
        EXPECT_TRUE(log.wait_for("thread exit: " + host + ":80")) << host;
    }
    EXPECT_GT(log.count("pelkin_create_a_thread():Unable to create pipe: "), 0u);
    EXPECT_EQ(requester.ask({.url = "127.0.0.1/p", .text = "served", .http_req_type = 1}),
              "served");
}

TEST(HostileCaller, NoStrangersLinkTakesAnAnswersFile)
{
    static const struct {
        mode_t mode;
        uid_t owner; // of the link
        bool followed;
    } cases[] = {{01777, 1234, false}, {01777, 0, true}, {0755, 1234, true}};
    LogSink log;
    Server server({}, serve_bodies(body_of));
    Daemon daemon;
    const Requester requester;
    for (size_t i = 0; i < std::size(cases); i++) {
        const std::string directory = "/run/links" + std::to_string(i);
        const std::string link = directory + "/answer";
        const std::string target = "/run/target" + std::to_string(i);
        ASSERT_EQ(mkdir(directory.c_str(), 0755) | chmod(directory.c_str(), cases[i].mode), 0);
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
        if (lchown(link.c_str(), cases[i].owner, 0) != 0) {
            GTEST_SKIP() << "no other user here";
        }
        EXPECT_TRUE(requester.send(Request{.url = "127.0.0.1/p",
                                           .text = "written",
                                           .resp_method = PELKIN_RESP_FILE,
                                           .http_req_type = 1,
                                           .file_path = link}));
        EXPECT_TRUE(cases[i].followed
                        ? wait_until([&] { return read_file(target) == "written"; })
                        : log.wait_for("pelkin_send_to_file():open file " + link + " fail."));
        EXPECT_EQ(access(target.c_str(), F_OK) == 0, cases[i].followed);
    }
}

TEST(HostileCaller, DirectoryInTheMonitorSocketsPlaceGoesOrIsToldOf)
{
    for (const bool is_empty : {true, false}) {
        LogSink log;
        (void)unlink(PELKIN_MONITOR_SOCKET_PATH);
        ASSERT_EQ(mkdir(PELKIN_MONITOR_SOCKET_PATH, 0755), 0);
        if (!is_empty) {
            write_file(PELKIN_MONITOR_SOCKET_PATH "/file", "");
        }
        Daemon daemon;
        const Requester prober;
        if (is_empty) {
            const ipc_msg_hdr probe = {.reserved0 = 0,
                                       .src_module = 8,
                                       .reserved2 = 0,
                                       .msg_id = VOKMON_MSG_PROBE,
                                       .len = 0};
            EXPECT_TRUE(wait_until([&] { // one that comes before the first mark is not answered
                return is_served(PELKIN_MONITOR_SOCKET_PATH) &&
                       prober.send(bytes_of(probe), PELKIN_MONITOR_SOCKET_PATH) &&
                       prober.receive(1).has_value();
            }));
        } else {
            EXPECT_TRUE(log.wait_for("no probe will be answered, cannot open "));
        }
    }
}
