// pelkinctl log: the log service's place, and what reaches a terminal.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "log/smart_tty.h"
#include "tests/support/client.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tools/printable.h"

using support::Client;
using support::run_client;
using support::wait_until;

static std::string record(uint32_t level, const std::string &text)
{
    smart_tty_msg message = {};
    memcpy(message.process, "PELKIN", 6);
    message.level = level;
    message.kind = SMART_TTY_KIND;
    return std::string((const char *)&message, SMART_TTY_HEADER_SIZE) + text;
}

static bool is_serving()
{
    return support::is_served(SMART_TTY_SERVICE_PATH);
}

// The lines of a view without their times of arrival.
static std::string without_times(const std::string &text)
{
    const size_t time_length = strlen("2026-01-01 00:00:00.000 ");
    std::string lines;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        lines += text.substr(at + (text[at] == '2' ? time_length : 0),
                             text.find('\n', at) + 1 - at - (text[at] == '2' ? time_length : 0));
    }
    return lines;
}

TEST(Printable, OnlyTextSurvives)
{
    const struct {
        const char *text;
        const char *printable;
    } cases[] = {
        {"plain\ttext\n", "plain\ttext\n"},
        {"\x1b[31mred\x1b]0;title\x07", "[31mred]0;title"},
        {"\r\b\x7f\v", ""},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xc2\x9b"
         "31m|\xc2\x85",
         "31m|"}, // C1 in UTF-8
        {"\x9b"
         "31m\xff\xc3",
         "31m"}, // C1 as a byte, no UTF-8, cut UTF-8
        {"\xc0\x9b\xe0\x80\x9b\xed\xa0\x80\xf4\x90\x80\x80", ""}, // overlong, surrogate, beyond
        {"\xe2\x82[0m", "[0m"},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(printable(one.text), one.printable);
    }
}

TEST(ClientLog, ShowsTheDaemonsRecordsAndLeavesNothing)
{
    Client view({"log"});
    ASSERT_TRUE(wait_until(is_serving));
    {
        const support::Daemon daemon;
        EXPECT_EQ(run_client({"level", "debug"}).status, 0);
        EXPECT_TRUE(
            wait_until([&] { return view.out().find("log_level = 7\n") != std::string::npos; }));
        EXPECT_NE(without_times(view.out())
                      .find("PELKIN notice  pelkin_set_log_level():received SIGUSR1, set"),
                  std::string::npos);
        EXPECT_EQ(run_client({"log"}).status, 2) << "two views at once";
        EXPECT_TRUE(is_serving());
    }
    (void)kill(view.pid, SIGTERM);
    EXPECT_EQ(view.wait(), 0);
    EXPECT_NE(access(SMART_TTY_SERVICE_PATH, F_OK), 0);
}

TEST(ClientLog, NoRecordCanForgeALineOrATerminalCommand)
{
    Client view({"log"});
    ASSERT_TRUE(wait_until(is_serving));
    const support::Requester module;
    EXPECT_TRUE(module.send("short", SMART_TTY_SERVICE_PATH));
    EXPECT_TRUE(module.send(record(3, ""), SMART_TTY_SERVICE_PATH));
    EXPECT_TRUE(
        module.send(record(3, "a\x1b[2J\rb\n2026-01-01 forged\n\n"), SMART_TTY_SERVICE_PATH));
    EXPECT_TRUE(module.send(record(4000000000u, std::string(5000, 'x') + "no end"),
                            SMART_TTY_SERVICE_PATH));
    EXPECT_TRUE(module.send(record(6, "last\n"), SMART_TTY_SERVICE_PATH));
    EXPECT_TRUE(wait_until([&] { return view.out().find("last\n") != std::string::npos; }));
    EXPECT_EQ(without_times(view.out()), "PELKIN err     a[2Jb\n    2026-01-01 forged\n"
                                         "PELKIN level 4000000000" +
                                             std::string(SMART_TTY_TEXT_MAX + 1, 'x') +
                                             "\nPELKIN info    last\n");
}

TEST(ClientLog, TakesAStaleSocketsPlaceButNoOtherFiles)
{
    {
        const support::Requester gone("/tmp/gone");
        (void)link("/tmp/gone", SMART_TTY_SERVICE_PATH);
    }
    {
        Client view({"log"});
        ASSERT_TRUE(wait_until(is_serving));
        // The log service comes and takes its place back.
        support::LogSink service;
        (void)kill(view.pid, SIGINT);
        EXPECT_EQ(view.wait(), 0);
        EXPECT_TRUE(is_serving()) << "the service's socket was removed";
    }
    support::write_file(SMART_TTY_SERVICE_PATH, "not a socket");
    EXPECT_EQ(run_client({"log"}).status, 2);
    EXPECT_EQ(support::read_file(SMART_TTY_SERVICE_PATH), "not a socket");
    (void)unlink(SMART_TTY_SERVICE_PATH);
}

TEST(ClientLog, EndsWithItsReaderWithoutAnyRecord)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Client view({"log"}, ends[1]);
    ASSERT_TRUE(wait_until(is_serving));
    (void)close(ends[1]);
    (void)close(ends[0]);
    EXPECT_EQ(view.wait(), 128 + SIGPIPE);
    EXPECT_NE(access(SMART_TTY_SERVICE_PATH, F_OK), 0);
}

// What a view writes to a terminal up to the end of its first record.
static std::string on_a_terminal(const support::Requester &module)
{
    int master = -1;
    int terminal = -1;
    EXPECT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
    Client view({"log"}, terminal);
    EXPECT_TRUE(wait_until(is_serving));
    EXPECT_TRUE(module.send(record(3, "text"), SMART_TTY_SERVICE_PATH));
    std::string shown;
    char byte = 0;
    while (byte != '\n' && read(master, &byte, 1) == 1) {
        shown += byte;
    }
    (void)kill(view.pid, SIGINT);
    EXPECT_EQ(view.wait(), 0);
    (void)close(terminal);
    (void)close(master);
    return shown;
}

TEST(ClientLog, ColoursATerminalUnlessToldNotTo)
{
    const support::Requester module;
    (void)setenv("TERM", "xterm", 1);
    EXPECT_NE(on_a_terminal(module).find("\x1b[31merr     text\x1b[0m"), std::string::npos);
    (void)setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(on_a_terminal(module).find('\x1b'), std::string::npos);
    (void)unsetenv("NO_COLOR");
}
