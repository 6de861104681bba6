// Datagrams to the monitor's socket. One input is the daemon's module id (8 bits) and up to 16
// datagrams: who sends it (8 bits: even, a prober with a name; odd, one without), and the datagram
// (length in 16 bits, bytes).
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "core/daemon/monitor.h"
#include "core/ipc_msg.h"
#include "fuzz/harness.h"

static const int DATAGRAMS_MAX = 16;

struct sockets {
    int32_t monitor;
    int32_t named;   // the prober that an answer can reach
    int32_t unnamed; // the one that none can
};

static struct sockets open_sockets(void)
{
    static const char monitor_path[] = "/tmp/probe_fuzzer";
    struct sockaddr_un monitor = {.sun_family = AF_UNIX, .sun_path = ""};
    memcpy(monitor.sun_path, monitor_path, sizeof monitor_path);
    const struct sockets sockets = {vokmon_open_sock(monitor_path, 0),
                                    vokmon_open_sock("/tmp/probe_fuzzer.prober", 0),
                                    socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    for (const int32_t sock : {sockets.named, sockets.unnamed}) {
        require(connect(sock, (const struct sockaddr *)&monitor, sizeof monitor) == 0, "a prober");
    }
    return sockets;
}

static void probe(const struct sockets *sockets, bool is_named, const std::string &datagram)
{
    static const char id[] = "\x01\x00\x00\x08"; // of a probe, in host order
    const bool is_probe = datagram.size() >= 8 && datagram.compare(4, 4, id, 4) == 0;
    require(send(is_named ? sockets->named : sockets->unnamed, datagram.data(), datagram.size(),
                 0) == (ssize_t)datagram.size(),
            "sending");
    require((vokmon_reply(sockets->monitor) == 0) == is_probe, "what counts as a probe");

    char reply[64];
    const ssize_t got = recv(sockets->named, reply, sizeof reply, MSG_DONTWAIT);
    if (!is_probe || !is_named) {
        require(got < 0, "no reply");
        return;
    }
    const std::string expected = std::string(1, '\0') + (char)vokmon_module_id +
                                 datagram.substr(2, 2) +
                                 std::string("\x02\x00\x00\x08\x00\x00\x00\x00", 8);
    require(got >= 0 && expected == std::string(reply, (size_t)got), "the reply");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const struct sockets sockets = open_sockets();
    struct input input = {data, size};
    vokmon_set_module(take_byte(&input));
    for (int i = 0; i < DATAGRAMS_MAX && input.size > 0; i++) {
        const bool is_named = take_byte(&input) % 2 == 0;
        probe(&sockets, is_named, take_bytes(&input, take_word(&input)));
    }
    require(vokmon_reply(sockets.monitor) == -1, "no datagram is left");
    return 0;
}
