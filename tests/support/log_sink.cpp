#include "tests/support/log_sink.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace support
{

// A socket whose queue holds more than the usual ten datagrams: the log never waits, so a short
// queue loses records. The limit belongs to the network namespace; it is left alone outside the
// sandbox, which has no interface but loopback.
static int make_deep_socket()
{
    static const char limit_path[] = "/proc/sys/net/unix/max_dgram_qlen";
    const std::string interfaces = read_file("/proc/net/dev");
    const bool sandboxed = std::count(interfaces.begin(), interfaces.end(), ':') == 1;
    const std::string limit = read_file(limit_path);
    if (sandboxed) {
        write_file(limit_path, "100000");
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sandboxed) {
        write_file(limit_path, limit);
    }
    return fd;
}

static int bind_datagram(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    (void)unlink(path.c_str());
    const int fd = make_deep_socket();
    if (bind(fd, (const sockaddr *)&address, sizeof address) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
    return fd;
}

DatagramReader::DatagramReader(const std::string &path, Take take)
    : bound_path(path), fd(bind_datagram(path))
{
    thread = std::thread([this, take = std::move(take)] {
        static thread_local char buffer[70000];
        for (;;) {
            const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0) {
                return; // shut down by the destructor
            }
            take(std::string_view(buffer, (size_t)got));
        }
    });
}

DatagramReader::~DatagramReader()
{
    (void)shutdown(fd, SHUT_RDWR);
    thread.join();
    (void)close(fd);
    (void)unlink(bound_path.c_str());
}

DatagramSink::DatagramSink(const std::string &path)
    : reader(path, [this](std::string_view bytes) {
          const std::lock_guard<std::mutex> lock(guard);
          received.emplace_back(bytes);
      })
{
}

std::vector<std::string> DatagramSink::all()
{
    const std::lock_guard<std::mutex> lock(guard);
    return received;
}

void DatagramSink::clear()
{
    const std::lock_guard<std::mutex> lock(guard);
    received.clear();
}

size_t DatagramSink::count(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(guard);
    return (size_t)std::count_if(received.begin(), received.end(),
                                 [&](const std::string &one) { return contains(one, text); });
}

bool DatagramSink::wait_for(const std::string &text, size_t times, int seconds)
{
    return wait_until([&] { return count(text) >= times; }, seconds);
}

} // namespace support
