#include "tools/log_view.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "log/level_names.h"
#include "log/smart_tty.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"
#include "tools/printable.h"

// Records that are taken before they are printed: the kernel queues few, and senders don't wait.
static const int BATCH = 64;
static const char RESET[] = "\033[0m";

static const char *level_colour(uint32_t level)
{
    switch (level) {
    case 0:
    case 1:
    case 2:
    case 3:
        return "\033[31m"; // red
    case 4:
        return "\033[33m"; // yellow
    case 5:
        return "\033[36m"; // cyan
    case 7:
        return "\033[2m"; // dim
    default:
        return "";
    }
}

static std::string level_text(uint32_t level)
{
    const char *name = level <= 7 ? vesk_syslog_encode((int32_t)level, tu_prioritynames) : nullptr;
    return name != nullptr ? name : "level " + std::to_string(level);
}

// Local time of arrival; a record carries none.
static std::string time_text()
{
    timespec now = {};
    tm local = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    (void)localtime_r(&now.tv_sec, &local);
    char date[32];
    char text[48];
    (void)strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    (void)std::snprintf(text, sizeof text, "%s.%03ld", date, now.tv_nsec / 1000000);
    return text;
}

// The further lines of a text are set in, so that none can pass for a record of its own.
static std::string set_in(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
        text.insert(at + 1, "    ");
    }
    return text;
}

static std::string format_record(std::string_view datagram, bool coloured)
{
    smart_tty_msg record = {};
    std::memcpy(&record, datagram.data(), std::min(datagram.size(), sizeof record));
    std::string_view process(record.process, strnlen(record.process, sizeof record.process));
    const std::string text = printable(datagram.substr(SMART_TTY_HEADER_SIZE));

    std::string head = time_text() + " " + set_in(printable(process)) + " ";
    std::string body = level_text(record.level);
    body.resize(std::max(body.size(), sizeof "warning"), ' ');
    body += set_in(text);
    const char *colour = coloured ? level_colour(record.level) : "";
    return colour[0] != '\0' ? head + colour + body + RESET + "\n" : head + body + "\n";
}

// All that waits, up to BATCH records. False, said, when the socket or standard output fails.
static bool show_waiting(int fd, bool coloured)
{
    char buffer[sizeof(smart_tty_msg)];
    std::string lines;
    for (int taken = 0; taken < BATCH; taken++) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && errno != EAGAIN && errno != EINTR) {
            say("cannot receive: %s", std::strerror(errno));
            return false;
        }
        if (got < 0) {
            break;
        }
        if (got > SMART_TTY_HEADER_SIZE) {
            lines += format_record({buffer, (size_t)got}, coloured);
        } else {
            say("dropped a datagram of %zd bytes that is no log record", got);
        }
    }
    return write_out(lines);
}

int run_log()
{
    end_in_order_when_interrupted(); // before the socket stands, by which others know it has begun
    const int fd = serve_socket(SMART_TTY_SERVICE_PATH, "the log service");
    if (fd < 0) {
        return STATUS_UNREACHABLE;
    }
    say("showing what arrives at %s; end with Ctrl-C", SMART_TTY_SERVICE_PATH);
    const bool coloured = output_is_coloured();
    // Standard output is watched for its reader's end only, which would else show at the next line.
    pollfd watched[] = {{.fd = fd, .events = POLLIN, .revents = 0},
                        {.fd = STDOUT_FILENO, .events = 0, .revents = 0}};
    bool good = true;
    while (good) {
        const int ready = poll(watched, 2, -1);
        if (ready > 0 && watched[1].revents != 0) {
            (void)raise(SIGPIPE);
        }
        good = (ready >= 0 || errno == EINTR) && show_waiting(fd, coloured);
    }
    (void)close(fd);
    return STATUS_USAGE;
}
