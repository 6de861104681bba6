/* A module that asks the daemon for HTTP requests. */
#ifndef PELKIN_TESTS_SUPPORT_REQUESTER_H
#define PELKIN_TESTS_SUPPORT_REQUESTER_H

#include <cstdint>
#include <optional>
#include <string>

#include "core/ipc_msg.h"
#include "tests/support/messages.h"
#include "tests/support/wait.h"

namespace support
{

constexpr uint32_t PLAIN_MSG_ID = 0x15000009u; // an HTTP request without any meaning of its own

/* One http_req_msg with its envelope. */
struct Request {
    std::string url;
    std::string text = ""; // behind a 6-byte station address; "": no data at all
    uint32_t msg_id = PLAIN_MSG_ID;
    uint32_t resp_method = PELKIN_RESP_SOCKET;
    uint32_t http_req_type = 0;
    std::string file_path = "";
    std::string address = std::string("\x02\x00\x00\x00\x00\x01", PELKIN_MAC_SIZE);
    std::optional<std::string> data = std::nullopt; // instead of `address`, `text` and a NUL
};

/* Its datagram. */
std::string datagram(const Request &request);

/* A bound socket that sends to the daemon and receives its answers. */
struct Requester {
    /* `receive_room` in bytes; 0 keeps the system's. The file of the socket is replaced. */
    explicit Requester(const std::string &path = "/tmp/requester", int receive_room = 0);
    ~Requester();
    Requester(const Requester &) = delete;

    /* Waits for room at the daemon. False when it was not accepted (errno set). */
    bool send(const std::string &bytes, const std::string &to = PELKIN_SOCKET_PATH) const;
    bool send(const Request &request) const;
    /* The next datagram, or none when the deadline has passed. */
    std::optional<std::string> receive(int seconds = DEADLINE_S) const;
    /* send() and receive(): "<none>" stands for no answer. */
    std::string ask(const Request &request, int seconds = DEADLINE_S) const;

    std::string bound_path;
    int fd = -1;
    bool keeps_file = false; // the end leaves the socket's file behind, as a crash would
};

} // namespace support
#endif
