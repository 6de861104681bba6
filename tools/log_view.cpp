#include "tools/log_view.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>
#include <poll.h>
#include <regex.h>
#include <unistd.h>
#include <vector>

#include "log/smart_tty.h"
#include "tools/daemon_link.h"
#include "tools/exit_status.h"
#include "tools/log_records.h"
#include "tools/output.h"
#include "tools/own_socket.h"
#include "tools/printable.h"

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

// Local time of arrival, since a record carries none: the date and time as `format` has them,
// milliseconds, and `end`.
static std::string time_text(const char *format, const char *end)
{
    timespec now = {};
    tm local = {};
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    char date[32];
    char rest[16];
    char text[64];
    strftime(date, sizeof date, format, &local);
    strftime(rest, sizeof rest, end, &local);
    std::snprintf(text, sizeof text, "%s.%03ld%s", date, now.tv_nsec / 1000000, rest);
    return text;
}

// The further lines of a text are set in, so that none can pass for a record of its own.
static std::string set_in(std::string text)
{
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
        text.insert(at + 1, "    ");
    }
    return text;
}

static std::string as_text(const log_record &record, bool coloured)
{
    const std::string head =
        time_text("%Y-%m-%d %H:%M:%S", "") + " " + set_in(record.process) + " ";
    std::string body = level_text(record.level);
    body.resize(std::max(body.size(), sizeof "warning"), ' ');
    body += set_in(record.text);
    const char *colour = coloured ? level_colour(record.level) : "";
    return colour[0] != '\0' ? head + colour + body + RESET + "\n" : head + body + "\n";
}

static std::string as_json(const log_record &record)
{
    return "{\"time\":\"" + time_text("%Y-%m-%dT%H:%M:%S", "%z") +
           "\",\"process\":" + json_text(record.process) +
           ",\"level\":" + json_text(level_text(record.level)) +
           ",\"function\":" + json_text(function_of(record)) +
           ",\"message\":" + json_text(message_of(record)) + "}\n";
}

std::string pattern_fault(const std::string &pattern)
{
    regex_t compiled;
    char text[128];
    const int error = regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB);
    if (error == 0) {
        regfree(&compiled);
        return "";
    }
    regerror(error, &compiled, text, sizeof text);
    return "'" + pattern + "' is no regular expression: " + text;
}

struct log_filter {
    uint32_t level;
    std::optional<regex_t> pattern;
};

static log_filter make_filter(const log_command &command)
{
    log_filter filter = {.level = command.level >= 0 ? (uint32_t)command.level : UINT32_MAX,
                         .pattern = std::nullopt};
    if (!command.pattern.empty()) {
        // It has been compiled before, for its faults. At most one a run, so it is never freed.
        regcomp(&filter.pattern.emplace(), command.pattern.c_str(), REG_EXTENDED | REG_NOSUB);
    }
    return filter;
}

static bool passes(const log_record &record, const log_filter &filter)
{
    return record.level <= filter.level &&
           (!filter.pattern || regexec(&*filter.pattern, record.text.c_str(), 0, nullptr, 0) == 0);
}

// Read by the signal handler, which prints it.
static volatile sig_atomic_t shown_count;
static volatile sig_atomic_t is_count_printed; // a signal may come while the end prints it

static void print_count()
{
    if (is_count_printed != 0) {
        return;
    }
    is_count_printed = 1;
    char text[16];
    size_t at = sizeof text;
    text[--at] = '\n';
    unsigned rest = (unsigned)shown_count;
    do {
        text[--at] = (char)('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (write(STDOUT_FILENO, text + at, sizeof text - at) < 0) {
        _exit(STATUS_USAGE);
    }
}

// All that waits, as far as one batch goes. False, said, when socket or standard output fails.
static bool show_waiting(int fd, const log_command &command, const log_filter &filter)
{
    std::vector<log_record> records;
    std::string lines;
    const bool is_good = take_records(fd, &records);
    const bool coloured = output_is_coloured();
    for (const log_record &record : records) {
        if (passes(record, filter)) {
            shown_count = shown_count + 1;
            lines += command.json ? as_json(record) : as_text(record, coloured);
        }
    }
    return (command.count || write_out(lines)) && is_good;
}

// Until the deadline, if there is one. False when something failed.
static bool show_records(int fd, const log_command &command)
{
    const log_filter filter = make_filter(command);
    const deadline until = deadline_in(command.for_s);
    // Standard output is watched for its reader's end only, which would else show at the next line.
    pollfd watched[] = {{.fd = fd, .events = POLLIN, .revents = 0},
                        {.fd = STDOUT_FILENO, .events = 0, .revents = 0}};
    bool is_good = true;
    while (is_good) {
        const int ready = poll(watched, 2, command.for_s > 0 ? milliseconds_left(until) : -1);
        if (ready > 0 && watched[1].revents != 0) {
            raise(SIGPIPE);
        }
        is_good = (ready >= 0 || errno == EINTR) && show_waiting(fd, command, filter);
        if (command.for_s > 0 && milliseconds_left(until) == 0) {
            break;
        }
    }
    return is_good;
}

int run_log(const log_command &command)
{
    // Before the socket stands, by which others know that it has begun.
    end_in_order_when_interrupted(command.count ? print_count : nullptr);
    const int fd = serve_log();
    if (fd < 0) {
        return STATUS_UNREACHABLE;
    }
    say("showing what arrives at %s; end with Ctrl-C", SMART_TTY_SERVICE_PATH);
    const bool is_good = show_records(fd, command);
    close_own_socket(fd);
    if (is_good && command.count) {
        print_count();
    }
    return is_good ? STATUS_DONE : STATUS_USAGE;
}
