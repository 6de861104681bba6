#include "core/daemon/monitor.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/daemon/liveness.h"
#include "core/ipc_send.h"
#include "crash/signal_stack.h"
#include "log/log.h"
#include "platform/error_text.h"
#include "platform/retry_pause.h"
#include "platform/thread_name.h"

static const char MONITOR[] = "pelkin_vokmon_reply";
static const int WAIT_MS = 5000;

uint8_t vokmon_module_id;

void vokmon_set_module(uint8_t module_id)
{
    vokmon_module_id = module_id;
}

int32_t vokmon_open_sock(const char *path, uint8_t module_id)
{
    vokmon_set_module(module_id);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strnlen(path, sizeof address.sun_path));
    // An empty directory in its place goes as a file would; one with something in it stays.
    if (unlink(path) != 0 && errno == EISDIR) {
        rmdir(path);
    }
    if (bind(fd, (const struct sockaddr *)&address, sizeof address) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int32_t vokmon_reply(int32_t fd)
{
    struct ipc_msg_hdr message = {};
    struct sockaddr_un prober = {};
    socklen_t prober_length = sizeof prober;
    const ssize_t got = recvfrom(fd, &message, sizeof message, MSG_DONTWAIT,
                                 (struct sockaddr *)&prober, &prober_length);
    const ssize_t up_to_id = offsetof(struct ipc_msg_hdr, len);
    if (got < up_to_id || message.msg_id != VOKMON_MSG_PROBE) {
        return -1;
    }
    // Bytes 2 and 3 go back as they came: they are the prober's own.
    message.reserved0 = 0;
    message.src_module = vokmon_module_id;
    message.msg_id = VOKMON_MSG_PROBE_REPLY;
    message.len = 0;
    (void)sendto(fd, &message, sizeof message, MSG_DONTWAIT, (const struct sockaddr *)&prober,
                 pelkin_sendable_length(prober_length));
    return 0;
}

static bool discard_datagram(int32_t fd)
{
    uint8_t byte = 0;
    return recv(fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0;
}

// A datagram waits. A stale daemon reads and forgets it: left in the queue, it would wake this
// thread again at once, and be answered late. False when it is still there.
static bool answer_if_alive(int32_t fd)
{
    const int32_t age_s = pelkin_seconds_since_mark();
    if (age_s >= PELKIN_STALE_AFTER_S) {
        PELKIN_LOG_AS(MONITOR, ERROR, "Pelkin has been timeout for %d seconds.", age_s);
        return discard_datagram(fd);
    }
    errno = 0; // what was read and is no probe leaves it so
    const bool is_taken = vokmon_reply(fd) == 0 || errno == 0;
    PELKIN_LOG_AS(MONITOR, DEBUG, "Pelkin udpated timestamp %d seconds ago.", age_s);
    return is_taken;
}

void *pelkin_vokmon_reply(void *)
{
    crashdump_thread_init();
    name_this_thread("vokmon");
    const int32_t fd = vokmon_open_sock(PELKIN_MONITOR_SOCKET_PATH, PELKIN_MODULE_ID);
    if (fd < 0) {
        PELKIN_LOG_ERROR("no probe will be answered, cannot open %s: %s",
                         PELKIN_MONITOR_SOCKET_PATH, error_text(errno));
    }
    PELKIN_LOG_DEBUG("vokmonFd=%d", fd);
    // Without a socket (-1) poll() only sleeps, and the daemon runs on unanswering.
    struct pollfd watched = {.fd = fd, .events = POLLIN, .revents = 0};
    uint32_t failures = 0;
    for (;;) {
        const int ready = poll(&watched, 1, WAIT_MS);
        if (ready < 0 && errno != EINTR) {
            PELKIN_LOG_DEBUG("pelkin select() failed: %s, ignore", error_text(errno));
        }
        if (ready < 0 || (ready > 0 && !answer_if_alive(fd))) {
            retry_pause(&failures);
        } else {
            failures = 0;
        }
    }
}
