// The device library's calls: who may take over a request socket, and the URL encoder.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/ipc_open_sock.h"
#include "platform/url_encode.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"

using namespace support;

static const char PATH[] = "/tmp/served";

TEST(IpcOpenSock, StaleSocketIsReplacedAndAServedOneIsNot)
{
    const mode_t mask = umask(0);
    const int first = ipc_open_sock(PATH);
    ASSERT_GE(first, 0);
    struct stat status;
    ASSERT_EQ(stat(PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_EQ(umask(mask), 0u) << "the process's own mask must be as before";
    EXPECT_NE(fcntl(first, F_GETFD) & FD_CLOEXEC, 0);

    EXPECT_EQ(ipc_open_sock(PATH), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_TRUE(is_served(PATH)) << "the failed attempt must leave the first one's file";
    (void)close(first);
    const int second = ipc_open_sock(PATH);
    EXPECT_GE(second, 0);
    (void)close(second);
    (void)unlink(PATH);
}

TEST(IpcOpenSock, WhatIsNoSocketIsLeftAlone)
{
    write_file(PATH, "precious");
    EXPECT_EQ(ipc_open_sock(PATH), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(read_file(PATH), "precious");
    (void)unlink(PATH);
    ASSERT_EQ(symlink("/tmp/elsewhere", PATH), 0);
    EXPECT_EQ(ipc_open_sock(PATH), -1);
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
    (void)unlink(PATH);
    EXPECT_EQ(ipc_open_sock(std::string(108, 'x').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

// A descriptor beyond select()'s sets must not be handed out: the main loop would write outside
// one.
TEST(IpcOpenSock, DescriptorBeyondASelectSetIsRefused)
{
    const struct rlimit many = {.rlim_cur = 2048, .rlim_max = 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < FD_SETSIZE) {
        taken.push_back(open("/dev/null", O_RDONLY));
        ASSERT_GE(taken.back(), 0);
    }
    EXPECT_EQ(ipc_open_sock(PATH), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_NE(access(PATH, F_OK), 0);
    for (const int fd : taken) {
        (void)close(fd);
    }
}

TEST(IpcOpenSock, PeerThatDoesNotReadHoldsASenderTwoSecondsAtMost)
{
    const int fd = ipc_open_sock(PATH);
    ASSERT_GE(fd, 0);
    struct timeval timeout = {};
    socklen_t length = sizeof timeout;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length), 0);
    EXPECT_EQ(timeout.tv_sec, 2);
    const Requester deaf("/tmp/deaf");
    struct sockaddr_un peer = {};
    peer.sun_family = AF_UNIX;
    std::strcpy(peer.sun_path, "/tmp/deaf");
    int sent = 0;
    while (sendto(fd, "x", 1, 0, (const sockaddr *)&peer, sizeof peer) == 1) {
        sent++;
    }
    EXPECT_EQ(errno, EAGAIN) << "after " << sent << " datagrams";
    (void)close(fd);
    (void)unlink(PATH);
}

TEST(UrlEncode, EveryByteAndEveryCut)
{
    std::string all, expected;
    for (int byte = 1; byte < 256; byte++) {
        char code[4];
        (void)snprintf(code, sizeof code, "%%%02X", byte);
        const bool stays = byte < 128 && (isalnum(byte) != 0 || strchr("-_.~", byte) != nullptr);
        all += (char)byte;
        expected += stays ? std::string(1, (char)byte) : code;
    }
    char encoded[1024];
    EXPECT_EQ(urlEncode(all.c_str(), encoded, sizeof encoded), encoded);
    EXPECT_EQ(encoded, expected);

    static const char *const cuts[] = {"", "", "a", "a", "a", "a%20", "a%20b"};
    for (size_t size = 1; size < std::size(cuts); size++) {
        std::memset(encoded, '#', sizeof encoded);
        EXPECT_STREQ(urlEncode("a b", encoded, size), cuts[size]) << size;
        EXPECT_EQ(encoded[size], '#');
    }
    EXPECT_EQ(urlEncode("a", encoded, 0)[0], 'a') << "no room, nothing written";
}
