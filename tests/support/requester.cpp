#include "tests/support/requester.h"

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace support
{

std::string datagram(const Request &request)
{
    std::string data;
    if (request.data) {
        data = *request.data;
    } else if (!request.text.empty()) {
        data = request.address + request.text + std::string(1, '\0');
    }
    http_req_msg record = {};
    record.resp_method = request.resp_method;
    record.http_req_type = request.http_req_type;
    request.url.copy(record.url, sizeof record.url);
    request.file_path.copy(record.file_path, sizeof record.file_path);
    record.len = (uint32_t)data.size();
    return message(request.msg_id, bytes_of(record) + data);
}

static sockaddr_un unix_address(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path); // the longest one without a NUL
    return address;
}

Requester::Requester(const std::string &path, int receive_room) : bound_path(path)
{
    const sockaddr_un address = unix_address(path);
    (void)unlink(path.c_str());
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (receive_room > 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_room, sizeof receive_room);
    }
    if (bind(fd, (const sockaddr *)&address, sizeof address) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

Requester::~Requester()
{
    (void)close(fd);
    if (!keeps_file) {
        (void)unlink(bound_path.c_str());
    }
}

bool Requester::send(const std::string &bytes, const std::string &to) const
{
    const sockaddr_un address = unix_address(to);
    return sendto(fd, bytes.data(), bytes.size(), 0, (const sockaddr *)&address, sizeof address) ==
           (ssize_t)bytes.size();
}

bool Requester::send(const Request &request) const
{
    return send(datagram(request));
}

std::optional<std::string> Requester::receive(int seconds) const
{
    pollfd watched = {.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&watched, 1, seconds * 1000) != 1) {
        return std::nullopt;
    }
    std::string buffer(256 * 1024, '\0');
    const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
    if (got < 0) {
        return std::nullopt;
    }
    buffer.resize((size_t)got);
    return buffer;
}

std::string Requester::ask(const Request &request, int seconds) const
{
    if (!send(request)) {
        return "<not sent>";
    }
    return receive(seconds).value_or("<none>");
}

} // namespace support
