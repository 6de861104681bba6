#include "tools/log_records.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/socket.h>

#include "log/level_names.h"
#include "log/smart_tty.h"
#include "tools/output.h"
#include "tools/own_socket.h"
#include "tools/printable.h"

static const int BATCH = 64;

int serve_log()
{
    return serve_socket(SMART_TTY_SERVICE_PATH, "the log service");
}

int try_to_serve_log()
{
    return try_to_serve_socket(SMART_TTY_SERVICE_PATH);
}

static const char MARK[] = "():";

std::string function_of(const log_record &record)
{
    const size_t at = record.text.find(MARK);
    return at == std::string::npos ? "" : record.text.substr(0, at);
}

std::string message_of(const log_record &record)
{
    const size_t at = record.text.find(MARK);
    return at == std::string::npos ? record.text : record.text.substr(at + sizeof MARK - 1);
}

static std::string without_final_breaks(std::string text)
{
    text.resize(text.find_last_not_of('\n') + 1);
    return text;
}

static log_record read_record(std::string_view datagram)
{
    smart_tty_msg head = {};
    std::memcpy(&head, datagram.data(), std::min(datagram.size(), sizeof head));
    const std::string_view process(head.process, strnlen(head.process, sizeof head.process));
    return {.level = head.level,
            .process = without_final_breaks(printable(process)),
            .text = without_final_breaks(printable(datagram.substr(SMART_TTY_HEADER_SIZE)))};
}

bool take_records(int fd, std::vector<log_record> *records)
{
    char buffer[sizeof(smart_tty_msg)];
    for (int taken = 0; taken < BATCH; taken++) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0) {
            const bool is_empty = errno == EAGAIN || errno == EINTR;
            if (!is_empty) {
                say("cannot receive: %s", std::strerror(errno));
            }
            return is_empty;
        }
        if (got > SMART_TTY_HEADER_SIZE) {
            records->push_back(read_record({buffer, (size_t)got}));
        } else {
            say("dropped a datagram of %zd bytes that is no log record", got);
        }
    }
    return true;
}

std::string level_text(uint32_t level)
{
    const char *name = level <= 7 ? vesk_syslog_encode((int32_t)level, tu_prioritynames) : nullptr;
    return name != nullptr ? name : "level " + std::to_string(level);
}
