// The log channel as its receivers see it, its registration, the names of its levels, and the
// sockets by which modules reach each other.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log/level_names.h"
#include "log/log.h"
#include "log/ttylog_modules.h"
#include "log/unix_sock.h"
#include "platform/ipc_open_sock.h"
#include "platform/url_encode.h"
#include "tests/support/log_sink.h"

using namespace support;
using std::filesystem::exists;

static const char CALLS[] = "/tmp/ttylog.calls";

// A `ttylog` program that notes its command lines.
static void install_fake_ttylog()
{
    (void)mkdir("/tmp/bin", 0755);
    write_file("/tmp/bin/ttylog", "#!/bin/sh\necho \"$@\" >>/tmp/ttylog.calls\n");
    (void)chmod("/tmp/bin/ttylog", 0755);
    (void)unlink(CALLS);
    (void)setenv("PATH", ("/tmp/bin:" + std::string(getenv("PATH"))).c_str(), 1);
}

static uint32_t word_at(const std::string &bytes, size_t offset)
{
    uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

struct LogChannel : testing::Test {
    LogChannel()
    {
        install_fake_ttylog();
        EXPECT_EQ(pelkin_ttylog_init(), 0);
        tu_facility = 0;
        tu_trace_level = 5;
    }
    ~LogChannel() override
    {
        (void)pelkin_ttylog_unregister();
    }
    // What reached the service up to now: a last record, sent here, closes the list.
    std::vector<std::string> records()
    {
        smart_tty_print(ctrl, 1, 0x83, "closing record");
        EXPECT_TRUE(sink.wait_for("closing record"));
        std::vector<std::string> all = sink.all();
        all.pop_back();
        sink.clear();
        return all;
    }
    struct smart_tty_ctrl *const ctrl = &pelkin_ttylog_ctrl;
    LogSink sink; // bound before the registration, which connects to it
    SyslogSink syslog_sink;
};

TEST_F(LogChannel, RecordsByteByByteAndNoneOfTooLongAFormat)
{
    smart_tty_print(ctrl, 7, 0x9D, "a%sc", "b");
    va_list none = {};
    struct smart_tty_msg record;
    EXPECT_EQ(smart_tty_format(&record, std::string(4051, 'f').c_str(), none), 0u);
    std::memset(ctrl->process, 'N', sizeof ctrl->process);
    smart_tty_print(ctrl, 1, 0x83, "x");
    const std::vector<std::string> got = records();
    std::strcpy(ctrl->process, "PELKIN");

    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].substr(0, 32), std::string("PELKIN") + std::string(26, '\0'));
    EXPECT_EQ(word_at(got[0], 32), 7u);
    EXPECT_EQ(word_at(got[0], 36), 5u);
    EXPECT_EQ(word_at(got[0], 40), 2u);
    EXPECT_EQ(got[0].substr(44), "abc");
    EXPECT_EQ(got[1].substr(0, 32), std::string(31, 'N') + '\0') << "no room for the terminator";
    EXPECT_TRUE(syslog_sink.wait_for("<157>")); // the whole priority, 0x9D, facility included
}

TEST(LogService, OneThatComesLateOrOnceMoreGetsTheNextRecords)
{
    SyslogSink syslog_sink;
    install_fake_ttylog();
    ASSERT_EQ(pelkin_ttylog_init(), 0); // nobody serves the path
    for (int i = 0; i < 3; i++) {
        smart_tty_print(&pelkin_ttylog_ctrl, 1, 0x83, "to nobody");
        LogSink sink;
        smart_tty_print(&pelkin_ttylog_ctrl, 1, 0x83, "%d", i);
        EXPECT_TRUE(sink.wait_for(std::to_string(i)));
        EXPECT_EQ(sink.all().size(), 1u);
    }
    EXPECT_EQ(pelkin_ttylog_unregister(), 0);
}

TEST_F(LogChannel, LevelsAndFacilityBitsDecideWhatIsPrinted)
{
    static const struct {
        uint32_t trace_level, facility;
        std::vector<uint32_t> levels; // of the five statements below, those that come out, as sent
    } cases[] = {
        {5, 0, {3, 4, 5}},
        {7, 0, {3, 4, 5, 6, 7}},
        {0, 0, {}},
        {3, 0, {3}},
        {7, 4, {7, 4, 5, 6, 7}},
        {6, 4, {4, 5, 6}},
        {0xFFFFFFFFu, 0, {3, 4, 5, 6, 7}},
    };
    for (const auto &one : cases) {
        tu_trace_level = one.trace_level;
        tu_facility = one.facility;
        PELKIN_LOG_ERROR("statement %d", 1);
        PELKIN_LOG_WARNING("statement");
        PELKIN_LOG_NOTICE("statement");
        PELKIN_LOG_INFO("statement");
        PELKIN_LOG_DEBUG("statement");
        std::vector<uint32_t> levels;
        for (const std::string &record : records()) {
            levels.push_back(word_at(record, 36));
            EXPECT_EQ(record.substr(44, 21), "TestBody():statement" + record.substr(64, 1));
            EXPECT_EQ(record.back(), '\n');
        }
        EXPECT_EQ(levels, one.levels) << one.trace_level << " " << one.facility;
    }
}

TEST_F(LogChannel, ScratchCopyIsMadeBelowTheLevelAndOnlyWithTheSwitchOn)
{
    tu_pelkin_fltlog = 1;
    PELKIN_LOG_DEBUG("copied %d", 1);
    EXPECT_STREQ(tu_tmpbuf, "copied 1");
    PELKIN_LOG_DEBUG("%s", std::string(3000, 'y').c_str());
    EXPECT_EQ(std::string(tu_tmpbuf), std::string(1023, 'y'));
    tu_pelkin_fltlog = 0;
    PELKIN_LOG_ERROR("not copied");
    EXPECT_EQ(tu_tmpbuf[0], 'y');
}

TEST_F(LogChannel, ServiceIsToldOfSettingsAndTheSystemLogGetsAllButDumps)
{
    smart_tty_buff_print(ctrl, 1, 0x87, 3, "ABC", "dump ");
    smart_tty_enable(ctrl, 2);
    smart_tty_enable(ctrl, 0);
    smart_tty_print(ctrl, 1, 0x83, "while disabled");
    EXPECT_TRUE(syslog_sink.wait_for("while disabled"));
    EXPECT_EQ(syslog_sink.count("dump"), 0u);
    smart_tty_enable(ctrl, 1);
    const std::vector<std::string> got = records();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].substr(44, 14), "dump 41 42 43 ");
    for (const int level : {-1, 8, 0x7FFFFFFF, 2}) {
        tev_ttylog_serial_default(ctrl, level);
    }
    EXPECT_EQ(read_file(CALLS), "register_process PELKIN enable 1 1.pelkin\n"
                                "register_process PELKIN disable\n"
                                "register_process PELKIN enable\n"
                                "serial_debug PELKIN level critical\n");
}

TEST_F(LogChannel, RegistrationSkipsNamesThatAreEmptyOrTooLong)
{
    (void)unlink(CALLS);
    struct smart_tty_ctrl other = {};
    std::strcpy(other.process, "OTHER");
    std::strcpy(other.models[0], "one");
    std::memset(other.models[2], 'x', 25);
    std::memset(other.models[31], 'y', 24);
    ASSERT_EQ(smart_tty_register(&other), 0);
    EXPECT_EQ(other.model_mask, 0x80000001u);
    const int fd = other.socket.fd;
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(smart_tty_unregister(&other), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the socket was left open";
    EXPECT_EQ(smart_tty_unregister(&other), -1);
    EXPECT_EQ(read_file(CALLS), "register_process OTHER disable 2 1.one 32." +
                                    std::string(24, 'y') + "\nunregister_process OTHER\n");
    other.status = 2;
    EXPECT_EQ(smart_tty_register(&other), -1);
    unix_sock_close(&other.socket);
}

// The thread sanitizer and the descriptor's next owner are the judges.
TEST_F(LogChannel, UnregisteringWhileOthersPrintIsSafe)
{
    for (int round = 0; round < 20; round++) {
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> printed{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; i++) {
            threads.emplace_back([&] {
                while (!stop) {
                    PELKIN_LOG_ERROR("under way %d", 1);
                    printed++;
                }
            });
        }
        EXPECT_TRUE(wait_until([&] { return printed > 50; }));
        EXPECT_EQ(pelkin_ttylog_unregister(), 0);
        // Whoever gets the number of the closed descriptor must see nothing of the log.
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, pair), 0);
        const uint64_t then = printed;
        EXPECT_TRUE(wait_until([&] { return printed > then + 50; }));
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        for (const int fd : pair) {
            char byte = 0;
            EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
        }
        (void)close(pair[0]);
        (void)close(pair[1]);
        ASSERT_EQ(pelkin_ttylog_init(), 0);
        sink.clear();
    }
}

TEST(LevelNames, StandForTheirNumbers)
{
    EXPECT_EQ(vesk_syslog_decode("Warning", tu_prioritynames), 4);
    EXPECT_EQ(vesk_syslog_decode("loCal3", tu_facilitynames), 0x98);
    EXPECT_EQ(vesk_syslog_decode("keep", tu_facilitynames), 0xF0);
    EXPECT_STREQ(vesk_syslog_encode(5, tu_prioritynames), "notice");
}

TEST(UnixSock, RequestAndReplyAndWhatGoesWrong)
{
    struct unix_sock daemon, client;
    (void)mkdir("/tmp/real", 0755);
    (void)symlink("/tmp/real", "/tmp/link");
    write_file("/tmp/real/d", "in the way");
    ASSERT_GE(unix_sock_open_daemon("/tmp/link/d", &daemon), 0);
    EXPECT_STREQ(daemon.local.sun_path, "/tmp/real/d");
    ASSERT_GE(unix_sock_open_client("/tmp/real/d", &client, 1), 0);
    const std::string own_name = client.local.sun_path;
    EXPECT_EQ(own_name.rfind("/tmp/uds-" + std::to_string(getpid()) + "-", 0), 0u) << own_name;
    EXPECT_EQ(unix_sock_pending(&daemon), 0);

    // The reply lies there already.
    const auto *address = (const sockaddr *)&client.local;
    EXPECT_EQ(sendto(daemon.fd, "67890", 5, 0, address, sizeof client.local), 5);
    char reply[8] = "";
    size_t reply_length = 4;
    EXPECT_EQ(unix_sock_request(&client, "12345", 5, reply, &reply_length), 0);
    EXPECT_EQ(std::string(reply, reply_length), "6789") << "cut to the room given";
    EXPECT_EQ(unix_sock_pending(&daemon), 1);
    EXPECT_EQ(recv(daemon.fd, reply, sizeof reply, 0), 5);
    EXPECT_EQ(std::string(reply, 5), "12345");

    EXPECT_EQ(unix_sock_request(&client, "silence", 7, reply, &reply_length), -2);
    // A peer that turns away from an unread request leaves an error, which is what is received.
    ASSERT_EQ(connect(daemon.fd, address, sizeof client.local), 0);
    std::thread turning([&daemon] {
        char byte = 0;
        EXPECT_EQ(recv(daemon.fd, &byte, 1, 0), 1);
        EXPECT_EQ(recv(daemon.fd, &byte, 1, MSG_PEEK), 1);
        const sockaddr nobody = {.sa_family = AF_UNSPEC, .sa_data = {}};
        EXPECT_EQ(connect(daemon.fd, &nobody, sizeof nobody), 0);
    });
    EXPECT_EQ(unix_sock_request(&client, "turn", 4, reply, &reply_length), -1);
    EXPECT_EQ(errno, ECONNRESET);
    turning.join();
    unix_sock_close(&daemon);
    EXPECT_FALSE(exists("/tmp/real/d"));
    EXPECT_EQ(unix_sock_request(&client, "gone", 4, reply, &reply_length), -1);
    EXPECT_EQ(unix_sock_pending(&client), 0);
    unix_sock_close(&client);
    EXPECT_FALSE(exists(own_name));
}

TEST(UnixSock, FailedOpensLeaveNothingBehind)
{
    struct unix_sock sock;
    EXPECT_EQ(unix_sock_open("/tmp/x", nullptr, 0, 0), -1);
    EXPECT_EQ(unix_sock_open("/tmp/x", &sock, 1, 1), -1);
    EXPECT_EQ(unix_sock_open_daemon("/tmp/no/such/directory", &sock), -1);
    write_file("/tmp/nobody", "kept");
    EXPECT_EQ(unix_sock_open_client("/tmp/nobody", &sock, 1), -1)
        << "named: a daemon must be there";
    EXPECT_EQ(read_file("/tmp/nobody"), "kept");
    EXPECT_EQ(sock.fd, -1);
    ASSERT_EQ(symlink("/usr", "/tmp/to-a-directory"), 0);
    EXPECT_EQ(unix_sock_open_daemon("/tmp/to-a-directory", &sock), -1);
    EXPECT_FALSE(exists("/tmp/to-a-directory"));
    EXPECT_EQ(unix_sock_pending(&sock), 0);
    EXPECT_EQ(std::system("ls /tmp/uds-* 2>/dev/null"), 2 << 8);
    ASSERT_GE(unix_sock_open_client("/tmp/nobody", &sock, 0), 0) << "unnamed: it need not be";
    unix_sock_close(&sock);

    const std::string path = "/tmp/" + std::string(150, 'n');
    ASSERT_GE(unix_sock_open_daemon(path.c_str(), &sock), 0);
    EXPECT_EQ(sock.local.sun_path, path.substr(0, 107));
    unix_sock_close(&sock);
    EXPECT_FALSE(exists(path.substr(0, 107)));
}

// That a stale socket is replaced, and nothing else, client_test shows.
TEST(IpcOpenSock, OwnsWhatItOpensAndFollowsNoLinkAndCutsNoName)
{
    const mode_t mask = umask(0);
    const int served = ipc_open_sock("/tmp/served");
    EXPECT_EQ(umask(mask), 0u) << "the process's own mask must be as before";
    struct stat status = {};
    EXPECT_EQ(stat("/tmp/served", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_NE(fcntl(served, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(served, F_GETFL) & O_NONBLOCK, 0);
    struct timeval timeout = {}; // of a sender whose peer does not read
    socklen_t length = sizeof timeout;
    EXPECT_EQ(getsockopt(served, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length), 0);
    EXPECT_EQ(timeout.tv_sec, 2);
    (void)close(served);

    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/planted"), 0);
    EXPECT_EQ(ipc_open_sock("/tmp/planted"), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_FALSE(exists("/tmp/elsewhere"));
    EXPECT_EQ(ipc_open_sock(std::string(108, 'x').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);

    // The first descriptor beyond select()'s sets: the main loop would write outside one.
    const struct rlimit many = {.rlim_cur = 2048, .rlim_max = 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < FD_SETSIZE - 1) {
        taken.push_back(open("/dev/null", O_RDONLY));
        ASSERT_GE(taken.back(), 0);
    }
    EXPECT_EQ(ipc_open_sock("/tmp/beyond"), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(exists("/tmp/beyond"));
    for (const int fd : taken) {
        (void)close(fd);
    }
}

TEST(UrlEncode, WithoutRoomNothingIsWritten)
{
    char untouched = 'u';
    EXPECT_EQ(*urlEncode("a", &untouched, 0), 'u');
}
