// What the running daemon must withstand: stalled and hostile servers, full pipes, requesters that
// do not read, small stacks, and many requests.
#include <condition_variable>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <set>

#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

namespace
{

// Holds the scripts that pass it until it is opened.
struct Gate {
    void open()
    {
        const std::lock_guard<std::mutex> lock(guard);
        is_open = true;
        opened.notify_all();
    }
    void pass()
    {
        std::unique_lock<std::mutex> lock(guard);
        opened.wait(lock, [this] { return is_open; });
    }
    std::mutex guard;
    std::condition_variable opened;
    bool is_open = false;
};

// Serves once the gate is open.
Script stalled_echo(Gate *gate)
{
    return [gate](Connection &connection) {
        gate->pass();
        serve_bodies(body_of)(connection);
    };
}

struct Load : testing::Test {
    static Request post(const std::string &text, const std::string &url = "127.0.0.1/p")
    {
        return {.url = url, .text = text, .http_req_type = 1};
    }
    // Answers of the stalled server, by text; ends when `last` has come.
    std::map<std::string, int> receive_up_to(size_t wanted) const
    {
        std::map<std::string, int> answers;
        for (size_t i = 0; i < wanted; i++) {
            const std::optional<std::string> one = requester.receive();
            if (!one) {
                ADD_FAILURE() << "only " << i << " of " << wanted << " answers came";
                break;
            }
            answers[*one]++;
        }
        return answers;
    }
    SyslogSink log;
    Gate gate;
    Server stalled{{}, stalled_echo(&gate)};
    Server good{{.address = "127.0.0.2"}, serve_bodies(body_of)};
    Requester requester;
};

// A text that no other request of the test has, of varied length.
std::string own_text(int number)
{
    return "n" + std::to_string(number) + std::string((size_t)(number * 37 % 1000), 'x');
}

} // namespace

TEST_F(Load, ThreeHundredRequestsAtAStalledServerAreEachAnsweredOnce)
{
    Daemon daemon;
    EXPECT_EQ(requester.ask(post("all threads stand", "127.0.0.2/p")), "all threads stand");
    const size_t threads = count_threads(daemon.pid);
    for (int i = 0; i < 300; i++) {
        Request request = post("");
        request.data = std::string(6, 'm') + own_text(i) + std::string(1, '\0');
        request.data->resize(8192, 'z'); // more than fits a pipe as the system makes it
        ASSERT_TRUE(requester.send(request));
    }
    EXPECT_EQ(Requester("/tmp/other").ask(post("others are served", "127.0.0.2/p")),
              "others are served");
    // A worker holds the task in progress and a hundred that wait; its first took no slot.
    EXPECT_EQ(count_threads(daemon.pid) - threads, 3u);
    EXPECT_EQ(count_semaphore_sets(), 4u);
    gate.open();
    const std::map<std::string, int> answers = receive_up_to(300);
    EXPECT_EQ(answers.size(), 300u);
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(answers.count(own_text(i)), 1u) << i;
    }
    EXPECT_EQ(requester.ask(post("next")), "next");
    EXPECT_EQ(stalled.connections, 3);
}

TEST_F(Load, LargeTasksFillThePipeAndRefusedOnesCostNothing)
{
    Daemon daemon;
    for (int round = 0; round < 3; round++) {
        // A separate request first: it holds the worker, so that the rest must wait in the pipe.
        constexpr int TASKS = 60;
        const size_t refused_before = log.count("failed to send task to thread. msg_id:15000009");
        for (int i = 0; i < TASKS; i++) {
            Request request = post("");
            request.data = std::string(6, 'm') + own_text(i + 1000 * round) + std::string(1, '\0');
            request.data->resize(61000, 'z');
            ASSERT_TRUE(requester.send(request));
        }
        EXPECT_EQ(Requester("/tmp/other").ask(post("served", "127.0.0.2/p")), "served");
        ASSERT_TRUE(requester.send(Request{.url = "http://"})); // told of behind all of them
        ASSERT_TRUE(log.wait_for("fill http task failed.", (size_t)round + 1));
        const size_t refused =
            log.count("failed to send task to thread. msg_id:15000009") - refused_before;
        if (round == 0) {
            EXPECT_LT(refused, 46u); // a megabyte, which the system grants anybody, is for 16
            EXPECT_GE(log.count("failed to send data, send buffer is full? err(11):"), refused);
            gate.open(); // further rounds find a worker that is as it was
        }
        const std::map<std::string, int> answers = receive_up_to(TASKS - refused);
        EXPECT_EQ(answers.size(), TASKS - refused);
        for (int i = 0; i < TASKS; i++) {
            EXPECT_LE(answers.count(own_text(i + 1000 * round)), 1u);
        }
        for (const auto &[text, times] : answers) {
            EXPECT_EQ(times, 1);
            EXPECT_EQ(text.substr(0, 1), "n") << text;
        }
    }
    EXPECT_EQ(stalled.connections, 1) << "slots of refused tasks were lost";
}

TEST_F(Load, RequesterThatNeverReadsHoldsUpNobodyElse)
{
    Daemon daemon;
    const Requester deaf("/tmp/deaf");
    gate.open();
    for (int i = 0; i < 40; i++) {
        ASSERT_TRUE(deaf.send(post(std::string(1000, 'd'))));
    }
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(requester.ask(post(own_text(i), "127.0.0.2/p")), own_text(i));
    }
    // Its own worker drops what cannot be delivered, and goes on.
    EXPECT_TRUE(log.wait_for("failed to send ipc msg."));
    // One without a name cannot be answered at all; one that has gone neither.
    {
        const Requester gone("/tmp/gone");
        ASSERT_TRUE(gone.send(post("to nobody", "127.0.0.2/p")));
    }
    EXPECT_EQ(requester.ask(post("still", "127.0.0.2/p")), "still");
}

TEST_F(Load, ReceiveThatKeepsFailingIsRepeatedWithPausesAndThenServed)
{
    const std::string trace = "/tmp/strace-of-main";
    // The main thread alone is traced. The leak check cannot run there.
    Daemon daemon({"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-D", "-qq", "-o", trace, "-e",
                   "trace=recvfrom,?nanosleep,?clock_nanosleep", "-e",
                   "inject=recvfrom:error=ENOMEM:when=1..40", "PELKIN"});
    gate.open();
    EXPECT_EQ(requester.ask(post("served in the end")), "served in the end");
    EXPECT_EQ(log.count("VOK_RECVFROM returns -1 -- Cannot allocate memory (12)"), 40u);
    const std::string calls = read_file(trace);
    size_t pauses = 0;
    for (size_t at = calls.find("nanosleep("); at != std::string::npos;
         at = calls.find("nanosleep(", at + 1)) {
        pauses++;
    }
    EXPECT_GE(pauses, 8u) << "it would spin";
}

TEST_F(Load, HostileServersNeitherStopTheDaemonNorDelayOthers)
{
    const std::string head = "HTTP/1.0 200 OK\r\nContent-Length: ";
    const struct {
        const char *name;
        Script script;
        std::string answer; // "": none
        const char *logged; // what the daemon says
    } cases[] = {
        {"silent", [](Connection &connection) { (void)connection.wait_for_close(); }, "", nullptr},
        {"reset",
         [head](Connection &connection) {
             (void)connection.read_request();
             (void)connection.send(head + "10\r\n\r\nhalf");
             connection.wait_until_read();
             connection.reset();
         },
         "half", nullptr},
        {"head without end",
         [](Connection &connection) {
             (void)connection.read_request();
             while (connection.send("Header: value\r\n")) {
             }
         },
         "", "can't find 2 CRLF in the response."},
        {"drip",
         [head](Connection &connection) {
             (void)connection.read_request();
             (void)connection.send(head + "3\r\n\r\n");
             for (const char *byte : {"d", "r", "p"}) {
                 std::this_thread::sleep_for(std::chrono::seconds(1)); // the pace is the case
                 (void)connection.send(byte);
             }
             (void)connection.wait_for_close();
         },
         "drp", nullptr},
    };
    Daemon daemon;
    daemon.set_trace_level(7, log);
    std::vector<std::unique_ptr<Server>> servers;
    std::vector<std::unique_ptr<Requester>> requesters;
    for (size_t i = 0; i < std::size(cases); i++) {
        for (const bool tls : {false, true}) {
            const std::string address =
                "127.0." + std::to_string(tls ? 4 : 3) + "." + std::to_string(i + 1);
            servers.push_back(std::make_unique<Server>(
                ServerOptions{.address = address, .tls = tls}, cases[i].script));
            requesters.push_back(std::make_unique<Requester>("/tmp/to-" + address));
            ASSERT_TRUE(requesters.back()->send(
                post("x", (tls ? "https://" : "http://") + address + "/p")));
        }
    }
    for (const char *host : {"no.such.host.invalid", "127.0.5.1", "127.0.0.2:81", "255.255.255.255",
                             "https:", "https://127.0.0.2", "%n%n%s", "\x01\xff"}) {
        ASSERT_TRUE(requester.send(post("x", std::string(host) + "/p")));
    }
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(requester.ask(post(own_text(i), "127.0.0.2/p")), own_text(i));
    }
    for (size_t i = 0; i < 2 * std::size(cases); i++) {
        const auto &one = cases[i / 2];
        if (!one.answer.empty()) {
            EXPECT_EQ(requesters[i]->receive().value_or("<none>"), one.answer) << one.name;
        }
        if (one.logged != nullptr) {
            EXPECT_TRUE(log.wait_for(one.logged, 2)) << one.name;
        }
    }
    EXPECT_TRUE(log.wait_for("can't get \"no.such.host.invalid\" host entry"));
    EXPECT_TRUE(log.wait_for("can't connect to 127.0.5.1:80"));
    EXPECT_EQ(requester.ask(post("alive", "127.0.0.2/p")), "alive");
}

TEST_F(Load, SmallStackCarriesTheLargestTasks)
{
    // The address sanitizer's frames are several times as large.
    Daemon daemon({"bash", "-c",
                   is_sanitized() ? "ulimit -s 2048; exec PELKIN" : "ulimit -s 64; exec PELKIN"});
    Server tls({.tls = true},
               serve_bodies([](const std::string &) { return std::string(61000, 'a'); }));
    gate.open();
    for (const uint32_t id : {PLAIN_MSG_ID, PELKIN_MSG_FBAUTH_REQ, PELKIN_MSG_REAUTH_REQ}) {
        Request request = post("", "https://127.0.0.1/p");
        request.msg_id = id;
        request.data = std::string(61000, 'm');
        EXPECT_EQ(requester.ask(request), std::string(61000, 'a')) << id;
        request.url = "127.0.0.1/p";
        EXPECT_NE(requester.ask(request), "<none>") << id;
    }
}

TEST_F(Load, TenThousandRequestsLoseNothing)
{
    const int total = is_sanitized() ? 2000 : 10000;
    Daemon daemon;
    gate.open();
    Server tls({.tls = true}, serve_bodies(body_of));
    const auto run = [&](int requests) {
        int sent = 0;
        std::multiset<std::string> outstanding;
        for (int received = 0; received < requests; received++) {
            while (sent < requests && outstanding.size() < 32) {
                const std::string text = own_text(sent);
                const char *url = sent % 2 == 0 ? "http://127.0.0.1/p" : "https://127.0.0.1/p";
                ASSERT_TRUE(requester.send(post(text, url)));
                outstanding.insert(text);
                sent++;
            }
            const std::string answered = requester.receive().value_or("<none>");
            const auto found = outstanding.find(answered);
            ASSERT_NE(found, outstanding.end()) << answered;
            outstanding.erase(found);
        }
    };
    run(1000);
    const size_t descriptors = count_descriptors(daemon.pid);
    const size_t threads = count_threads(daemon.pid);
    const size_t resident = resident_kib(daemon.pid);
    run(total);
    EXPECT_EQ(count_descriptors(daemon.pid), descriptors);
    EXPECT_EQ(count_threads(daemon.pid), threads);
    EXPECT_EQ(count_semaphore_sets(), 2u);
    if (!is_sanitized()) {
        EXPECT_LE(resident_kib(daemon.pid), resident + 128);
    }
    EXPECT_EQ(tls.connections, 1);
}

// A worker whose server has gone ends, record and all, with the next request for it.
TEST_F(Load, HundredLostServersLeaveNoThreadOrMemoryBehind)
{
    Daemon daemon;
    EXPECT_EQ(requester.ask(post("all threads stand", "127.0.0.2/p")), "all threads stand");
    const size_t threads = count_threads(daemon.pid);
    const auto have_left = [&] { return count_threads(daemon.pid) == threads; };
    const auto run = [&](int rounds) {
        for (int i = 0; i < rounds; i++) {
            Server server({.address = "127.0.6.1"}, [](Connection &connection) {
                (void)connection.send(answer(body_of(connection.read_request())));
            });
            ASSERT_EQ(requester.ask(post(own_text(i), "127.0.6.1/p")), own_text(i));
            server.stop();
            const size_t ended = log.count("thread exit: 127.0.6.1:80");
            ASSERT_TRUE(requester.send(post("lost", "127.0.6.1/p")));
            ASSERT_TRUE(log.wait_for("thread exit: 127.0.6.1:80", ended + 1));
            ASSERT_TRUE(wait_until(have_left)); // until then its pipe takes what it will never read
        }
    };
    run(20);
    const size_t descriptors = count_descriptors(daemon.pid);
    const size_t resident = resident_kib(daemon.pid);
    run(100);
    EXPECT_EQ(count_descriptors(daemon.pid), descriptors);
    EXPECT_EQ(count_semaphore_sets(), 2u);
    if (!is_sanitized()) {
        EXPECT_LE(resident_kib(daemon.pid), resident + 256);
    }
}
