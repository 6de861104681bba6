// The log channel as its receivers see it, its registration, the name tables and the socket
// helpers.
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log/level_names.h"
#include "log/log.h"
#include "log/ttylog_modules.h"
#include "log/unix_sock.h"
#include "tests/support/log_sink.h"

using namespace support;

// A `ttylog` program that notes its command lines.
static void install_fake_ttylog()
{
    (void)mkdir("/tmp/bin", 0755);
    write_file("/tmp/bin/ttylog", "#!/bin/sh\necho \"$@\" >>/tmp/ttylog.calls\n");
    (void)chmod("/tmp/bin/ttylog", 0755);
    (void)unlink("/tmp/ttylog.calls");
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
        smart_tty_print(&pelkin_ttylog_ctrl, 1, 0x83, "closing record");
        EXPECT_TRUE(sink.wait_for("closing record"));
        std::vector<std::string> all = sink.all();
        all.pop_back();
        sink.clear();
        return all;
    }
    LogSink sink; // bound before the registration, which connects to it
    SyslogSink syslog_sink;
};

TEST_F(LogChannel, RecordsByteByByteAndCutAtTheirLongest)
{
    struct smart_tty_ctrl *const ctrl = &pelkin_ttylog_ctrl;
    smart_tty_print(ctrl, 7, 0x9D, "a%sc", "b");
    smart_tty_print(ctrl, 1, 0x83, "%s", std::string(4050, 'x').c_str());
    smart_tty_print(ctrl, 1, 0x83, "%s", std::string(5000, 'x').c_str());
    smart_tty_print(ctrl, 1, 0x83, "%s", "");
    const std::string long_format(4051, 'f');
    va_list none = {};
    smart_tty_vprint(ctrl, 1, 0x83, long_format.c_str(), none);
    const std::vector<std::string> got = records();

    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].substr(0, 32), std::string("PELKIN") + std::string(26, '\0'));
    EXPECT_EQ(word_at(got[0], 32), 7u);
    EXPECT_EQ(word_at(got[0], 36), 5u);
    EXPECT_EQ(word_at(got[0], 40), 2u);
    EXPECT_EQ(got[0].substr(44), "abc");
    EXPECT_EQ(got[1].size(), 4094u);
    ASSERT_EQ(got[2].size(), 4095u);
    EXPECT_EQ(got[2].substr(44 + 4049), std::string("x\0", 2));
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

TEST_F(LogChannel, LongestProcessNameKeepsItsTerminator)
{
    std::memset(pelkin_ttylog_ctrl.process, 'N', sizeof pelkin_ttylog_ctrl.process);
    smart_tty_print(&pelkin_ttylog_ctrl, 1, 0x83, "x");
    const std::vector<std::string> got = records();
    std::strcpy(pelkin_ttylog_ctrl.process, "PELKIN");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].substr(0, 32), std::string(31, 'N') + std::string(1, '\0'));
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

TEST_F(LogChannel, DisabledRecordStillReachesTheSystemLog)
{
    smart_tty_enable(&pelkin_ttylog_ctrl, 2);
    smart_tty_enable(&pelkin_ttylog_ctrl, 0);
    smart_tty_print(&pelkin_ttylog_ctrl, 1, 0x83, "while disabled");
    EXPECT_TRUE(syslog_sink.wait_for("while disabled"));
    smart_tty_enable(&pelkin_ttylog_ctrl, 1);
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(read_file("/tmp/ttylog.calls"), "register_process PELKIN enable 1 1.pelkin\n"
                                              "register_process PELKIN disable\n"
                                              "register_process PELKIN enable\n");
}

TEST_F(LogChannel, RegistrationSkipsNamesThatAreEmptyOrTooLong)
{
    (void)unlink("/tmp/ttylog.calls");
    struct smart_tty_ctrl ctrl = {};
    std::strcpy(ctrl.process, "OTHER");
    std::strcpy(ctrl.models[0], "one");
    std::memset(ctrl.models[2], 'x', 25);
    std::memset(ctrl.models[31], 'y', 24);
    ASSERT_EQ(smart_tty_register(&ctrl), 0);
    EXPECT_EQ(ctrl.model_mask, 0x80000001u);
    EXPECT_NE(fcntl(ctrl.socket.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(ctrl.socket.fd, F_GETFD) & FD_CLOEXEC, 0);
    const int fd = ctrl.socket.fd;
    EXPECT_EQ(smart_tty_unregister(&ctrl), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the socket was left open";
    EXPECT_EQ(smart_tty_unregister(&ctrl), -1);
    EXPECT_EQ(read_file("/tmp/ttylog.calls"), "register_process OTHER disable 2 1.one 32." +
                                                  std::string(24, 'y') +
                                                  "\nunregister_process OTHER\n");
    ctrl.status = 2;
    EXPECT_EQ(smart_tty_register(&ctrl), -1);
    unix_sock_close(&ctrl.socket);
}

TEST_F(LogChannel, SerialLevelOutsideItsRangeIsRefused)
{
    (void)unlink("/tmp/ttylog.calls");
    for (const int level : {-1, 8, 0x7FFFFFFF, 2}) {
        tev_ttylog_serial_default(&pelkin_ttylog_ctrl, level);
    }
    EXPECT_EQ(read_file("/tmp/ttylog.calls"), "serial_debug PELKIN level critical\n");
}

TEST_F(LogChannel, HexDumpKeepsItsColumnsAndChunks)
{
    smart_tty_buff_print(&pelkin_ttylog_ctrl, 1, 0x87, 3, "ABC", "heading %d\n", 1);
    smart_tty_buff_print(&pelkin_ttylog_ctrl, 1, 0x87, 16, "ABCDEFGHIJKLMNO\x7f", "%s", "");
    smart_tty_buff_print(&pelkin_ttylog_ctrl, 1, 0x87, 0, "", "nothing follows");
    const std::string bytes(1000, '\xff');
    smart_tty_buff_print(&pelkin_ttylog_ctrl, 1, 0x87, bytes.size(), bytes.data(), "%s",
                         std::string(2000, 'h').c_str());
    const std::vector<std::string> got = records();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].substr(44), "heading 1\n41 42 43 " + std::string(40, ' ') + " |ABC\n");
    EXPECT_EQ(got[1].substr(44),
              "41 42 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 7F  |ABCDEFGH IJKLMNO.\n");
    EXPECT_EQ(got[2].size(), 44u + 4051) << "an over-long heading must not overrun the record";
    EXPECT_EQ(got[2].substr(44, 784), std::string(783, 'h') + "F");
    EXPECT_EQ(got[3].size(), 44u + 14 * 69 + 49 + 2 + 9 + 1);
    EXPECT_FALSE(syslog_sink.wait_for("heading 1", 1, 0));
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
        char byte = 0;
        EXPECT_EQ(recv(pair[0], &byte, 1, 0), -1);
        EXPECT_EQ(recv(pair[1], &byte, 1, 0), -1);
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        (void)close(pair[0]);
        (void)close(pair[1]);
        ASSERT_EQ(pelkin_ttylog_init(), 0);
        sink.clear();
    }
}

TEST(LevelNames, LookupsEndAtTheTablesEnd)
{
    static const struct {
        const char *name;
        const struct level_name *table;
        int32_t value;
    } cases[] = {
        {"Warning", tu_prioritynames, 4},     {"7", tu_prioritynames, 7},
        {"8", tu_prioritynames, -1},          {"loCal3", tu_facilitynames, 0x98},
        {"152", tu_facilitynames, 152},       {"153", tu_facilitynames, -1},
        {"-1", tu_facilitynames, -1},         {"keep", tu_facilitynames, 0xF0},
        {"", tu_prioritynames, -1},           {"warn", tu_prioritynames, -1},
        {"4294967303", tu_prioritynames, -1}, {"99999999999999999999", tu_prioritynames, -1},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(vesk_syslog_decode(one.name, one.table), one.value) << one.name;
    }
    EXPECT_STREQ(vesk_syslog_encode(5, tu_prioritynames), "notice");
    EXPECT_EQ(vesk_syslog_encode(9, tu_prioritynames), nullptr);
    EXPECT_EQ(vesk_syslog_encode(-1, tu_prioritynames), nullptr);
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

    std::thread server([&] {
        (void)wait_until([&] { return unix_sock_pending(&daemon) == 1; });
        char request[16];
        struct sockaddr_un from = {};
        socklen_t length = sizeof from;
        const ssize_t got =
            recvfrom(daemon.fd, request, sizeof request, 0, (sockaddr *)&from, &length);
        (void)sendto(daemon.fd, request, (size_t)got, 0, (const sockaddr *)&from, length);
    });
    char reply[8] = "";
    size_t reply_length = 4;
    EXPECT_EQ(unix_sock_request(&client, "12345", 5, reply, &reply_length), 0);
    server.join();
    EXPECT_EQ(std::string(reply, reply_length), "1234") << "cut to the room given";

    EXPECT_EQ(unix_sock_request(&client, "silence", 7, reply, &reply_length), -2);
    unix_sock_close(&daemon);
    EXPECT_NE(access("/tmp/real/d", F_OK), 0);
    EXPECT_EQ(unix_sock_request(&client, "gone", 4, reply, &reply_length), -1);
    EXPECT_EQ(unix_sock_pending(&client), 0);
    unix_sock_close(&client);
    EXPECT_NE(access(own_name.c_str(), F_OK), 0);
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
    EXPECT_EQ(std::system("ls /tmp/uds-* 2>/dev/null"), 2 << 8);
    ASSERT_GE(unix_sock_open_client("/tmp/nobody", &sock, 0), 0) << "unnamed: it need not be";
    unix_sock_close(&sock);

    const std::string name(150, 'n');
    ASSERT_GE(unix_sock_open_daemon(("/tmp/" + name).c_str(), &sock), 0);
    EXPECT_EQ(std::strlen(sock.local.sun_path), 107u);
    unix_sock_close(&sock);
    EXPECT_NE(access(("/tmp/" + name.substr(0, 102)).c_str(), F_OK), 0);

    const int broken = -1;
    sock.fd = broken;
    EXPECT_EQ(unix_sock_pending(&sock), 0);
}
