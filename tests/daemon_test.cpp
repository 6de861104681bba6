// The running daemon: start-up, intake, the road to a server and back, and the orderly stop. How a
// datagram becomes a task is the business of fuzz/intake_fuzzer and fuzz/url_split_fuzzer.
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/daemon/startup.h"
#include "core/ipc_msg.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

TEST(StartUp, FailedStepTakesTheOrderlyWayOutAndLaterOnesDoNotHappen)
{
    LogSink log;
    write_file(PELKIN_SOCKET_PATH, "no socket");
    Daemon daemon({"PELKIN"}, false);
    const int status = daemon.wait_for_end();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(read_file(PELKIN_SOCKET_PATH), "no socket");
    EXPECT_EQ(read_file(PELKIN_PID_FILE), std::to_string(daemon.pid)) << "comes before the socket";
    EXPECT_TRUE(log.wait_for("pelkin_init():Unable to open unix socket: Address already in use\n"));
    EXPECT_NE(access(PELKIN_MONITOR_SOCKET_PATH, F_OK), 0) << "comes after the socket";
    (void)unlink(PELKIN_SOCKET_PATH);
}

TEST(StartUp, SecondDaemonIsRefusedAndAStaleSocketReplaced)
{
    Server server({}, serve_bodies(body_of));
    const Requester requester;
    const Request request = {.url = "127.0.0.1/x", .text = "still here", .http_req_type = 1};
    {
        Daemon first;
        struct stat status;
        ASSERT_EQ(stat(PELKIN_SOCKET_PATH, &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0660u);
        Daemon second({"PELKIN"}, false);
        EXPECT_EQ(second.wait_for_end(), 0);
        EXPECT_EQ(requester.ask(request), "still here");
    }
    ASSERT_EQ(access(PELKIN_SOCKET_PATH, F_OK), 0) << "a killed daemon leaves its file";
    Daemon third;
    EXPECT_EQ(requester.ask(request), "still here");
}

namespace
{

// One daemon, its log at debug level, and an echo server of each kind.
struct Running : testing::Test {
    Running()
    {
        daemon.set_trace_level(7, log);
    }
    Request post(const std::string &text, const std::string &url = "http://127.0.0.1/p") const
    {
        return {.url = url, .text = text, .http_req_type = 1};
    }
    SyslogSink log;
    Server plain{{}, serve_bodies(body_of)};
    Server tls{{.tls = true}, serve_bodies(body_of)};
    Daemon daemon;
    Requester requester;
};

} // namespace

TEST_F(Running, RequestsTravelToTheirServerAndBackOverOneKeptConnection)
{
    for (int i = 0; i < 5; i++) {
        const std::string text = "n=" + std::to_string(i) + "&f=%s%n%d";
        EXPECT_EQ(requester.ask(post(text)), text);
        EXPECT_EQ(requester.ask(post(text, "https://127.0.0.1/%n%s")), text);
    }
    EXPECT_EQ(plain.connections, 1);
    EXPECT_EQ(tls.connections, 1);
    EXPECT_EQ(Requester("/tmp/" + std::string(103, 'r')).ask(post("longest path")), "longest path");
    // A name and an address of the same server are two keys.
    EXPECT_EQ(requester.ask(post("x", "localhost/p")), "x");
    EXPECT_EQ(plain.connections, 2);

    Request request = post("to a file");
    request.resp_method = PELKIN_RESP_FILE;
    request.file_path = "/tmp/answers/" + std::string(150, 'a'); // 128 of them are used
    EXPECT_TRUE(requester.send(request));
    const std::string path = request.file_path.substr(0, 141);
    EXPECT_TRUE(wait_until([&] { return read_file(path) == "to a file"; }));
    request.resp_method = 99;
    EXPECT_TRUE(requester.send(request));
    EXPECT_EQ(requester.ask(post("only answer")), "only answer") << "method 99 has none";
}

TEST_F(Running, NothingOfAnEarlierTaskOrAnswerShowsInALaterOne)
{
    for (const char *url : {"http://127.0.0.1/p", "https://127.0.0.1/p"}) {
        EXPECT_EQ(requester.ask(post(std::string(1024, 'L'), url)), std::string(1024, 'L'));
        EXPECT_EQ(requester.ask(post("s", url)), "s");
        Request request = post("", url);
        // 61,000 bytes of data without a NUL: 1024 of its text are used.
        request.data = std::string(6, 'm') + std::string(61000 - 6, 'D');
        EXPECT_EQ(requester.ask(request), std::string(1024, 'D'));
        EXPECT_EQ(requester.ask(post("t", url)), "t");
        // An address alone has no text, nor has a part of one.
        for (const char *address : {"mac", "macmac"}) {
            request.data = address;
            EXPECT_EQ(requester.ask(request), answer("")) << address;
        }
    }
}

TEST_F(Running, ShortPayloadReadsAsZerosAndNotAsTheMessageBefore)
{
    const std::string whole = datagram(post("earlier"));
    const uint32_t head = sizeof(struct ipc_msg_hdr);
    for (const size_t kept : {4u, 8u, 100u, 264u, 411u}) {
        EXPECT_EQ(requester.ask(post("earlier")), "earlier");
        const size_t refused = log.count("fill http task failed.");
        EXPECT_TRUE(requester.send(message(PLAIN_MSG_ID, whole.substr(head, kept))));
        if (kept <= offsetof(struct http_req_msg, url)) {
            EXPECT_TRUE(log.wait_for("fill http task failed.", refused + 1)) << kept;
        } else { // the URL came, the data did not
            EXPECT_EQ(requester.receive().value_or("<none>"), answer("")) << kept;
        }
    }
}

TEST_F(Running, GarbageOfEverySizeIsDroppedAndServiceGoesOn)
{
    std::mt19937 random(seed());
    const size_t descriptors = count_descriptors(daemon.pid);
    const size_t threads = count_threads(daemon.pid);
    for (size_t size = 0; size <= PELKIN_MSG_MAX; size += size < 600 ? 1 : 1013) {
        std::string bytes(size, '\0');
        for (char &byte : bytes) {
            byte = (char)random();
        }
        EXPECT_TRUE(requester.send(bytes)) << size;
        if (size >= sizeof(struct ipc_msg_hdr)) {
            // Now with an envelope that says the truth, or nearly so, or wraps around.
            const uint32_t payload = (uint32_t)(size - sizeof(struct ipc_msg_hdr));
            const uint32_t claims[] = {payload, payload + 1, 0xFFFFFFFFu, 0xFFFFFFF4u, 0x80000000u};
            std::memcpy(&bytes[8], &claims[random() % std::size(claims)], 4);
            EXPECT_TRUE(requester.send(bytes)) << size;
        }
    }
    EXPECT_TRUE(requester.send(std::string(PELKIN_MSG_MAX + 5000, 'x')));
    EXPECT_TRUE(requester.send(message(KIVREN_MSG_DEL_STA_RESP, "reply")));
    EXPECT_TRUE(requester.send(message(PLAIN_MSG_ID, "")));
    EXPECT_EQ(requester.ask(post("after garbage")), "after garbage");
    EXPECT_GE(log.count("Received length mismatched, expected:"), 100u);
    EXPECT_EQ(log.count("received:0\n"), 0u) << "an empty datagram is none";
    EXPECT_EQ(log.count("this should be reply of del sta request. no need to process it"), 1u);
    EXPECT_GE(log.count("fill http task failed."), 1u);
    // Each nameless garbage host leaves a record, no more: a pipe end apiece. A worker with a
    // server lives on, with two descriptors more; "0" in the garbage names the server here as well.
    const size_t workers = log.count("Add new social_media_thread");
    const auto served = (size_t)plain.connections;
    EXPECT_LE(served, 2u);
    EXPECT_TRUE(wait_until([&] {
        return count_descriptors(daemon.pid) <= descriptors + workers + 2 * served &&
               count_threads(daemon.pid) <= threads + served;
    })) << workers
        << " " << served;
}

TEST_F(Running, RestartedServerIsReachedByTheSameWorker)
{
    for (const bool https : {false, true}) {
        const std::string url = std::string(https ? "https" : "http") + "://127.0.0.9/p";
        const ServerOptions options = {.address = "127.0.0.9", .tls = https};
        for (int round = 0; round < 3; round++) {
            Server server(options, serve_bodies(body_of));
            EXPECT_EQ(requester.ask(post("again", url)), "again");
            EXPECT_EQ(server.connections, 1);
        }
        EXPECT_EQ(log.count("Add new social_media_thread: 127.0.0.9"), https ? 2u : 1u);
    }
    // Gone for good, the worker ends; its successor serves once the server is back.
    EXPECT_TRUE(requester.send(post("lost", "http://127.0.0.9/p")));
    EXPECT_TRUE(log.wait_for("thread exit: 127.0.0.9:80"));
    Server server({.address = "127.0.0.9"}, serve_bodies(body_of));
    EXPECT_TRUE(wait_until([&] { return count_semaphore_sets() == 2; }));
    EXPECT_EQ(requester.ask(post("back", "http://127.0.0.9/p")), "back");
    EXPECT_EQ(log.count("thread should exit already, del it then retry."), 1u);
}

TEST(Stop, GoneSocketEndsTheDaemonInOrderAndOtherErrorsDoNot)
{
    static const struct {
        const char *error;
        bool ends;
    } cases[] = {{"EBADF", true}, {"ENOTSOCK", true}, {"EIO", false}, {"EAGAIN", false}};
    Server plain({}, serve_bodies(body_of));
    Server tls({.tls = true}, serve_bodies(body_of));
    for (const auto &one : cases) {
        LogSink log;
        const Requester requester;
        // The leak check cannot run in a traced process.
        Daemon daemon({"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-D", "-qq", "-f", "-o",
                       "/dev/null", "-e", "trace=recvfrom", "-e",
                       std::string("inject=recvfrom:when=3:error=") + one.error, "PELKIN"});
        const Request request = {.url = "127.0.0.1/p", .text = "x", .http_req_type = 1};
        EXPECT_EQ(requester.ask(request), "x");
        EXPECT_EQ(requester.ask({.url = "https://127.0.0.1/p", .text = "y", .http_req_type = 1}),
                  "y");
        EXPECT_EQ(count_semaphore_sets(), 2u);
        EXPECT_TRUE(requester.send(request));
        EXPECT_TRUE(log.wait_for("VOK_RECVFROM returns -1 -- "));
        if (one.ends) {
            const int status = daemon.wait_for_end();
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                << one.error << " " << status << daemon.error_text();
        } else {
            EXPECT_EQ(requester.receive().value_or("<none>"), "x") << one.error;
            daemon.kill_now();
        }
        EXPECT_EQ(count_semaphore_sets(), 0u) << one.error;
    }
}
