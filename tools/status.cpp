#include "tools/status.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "core/daemon/signals.h"
#include "log/level_names.h"
#include "tools/daemon_process.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/printable.h"
#include "tools/probe.h"

static const double PROBE_TIMEOUT_S = 2;

struct daemon_status {
    daemon_process process;
    process_figures figures;
    probe_result probe;
    bool level_file; /* it is there */
    std::optional<long> level;
    bool verification_ignored;
    bool result_ignored;
};

static bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

// As the daemon reads it: the first number, if the file starts with one.
static std::optional<long> read_level_file()
{
    const int fd = open(PELKIN_LEVEL_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    char text[256];
    const ssize_t got = read(fd, text, sizeof text - 1);
    (void)close(fd);
    text[got > 0 ? got : 0] = '\0';
    char *end = nullptr;
    const long level = std::strtol(text, &end, 10);
    return end != text ? std::optional<long>(level) : std::nullopt;
}

static daemon_status look()
{
    daemon_status seen = {};
    seen.process = find_daemon();
    if (seen.process.pid != 0) {
        seen.figures = read_figures(seen.process.pid);
    } else {
        say("%s", seen.process.problem.c_str());
    }
    seen.probe = probe_daemon(PROBE_TIMEOUT_S);
    seen.level_file = exists(PELKIN_LEVEL_FILE);
    seen.level = read_level_file();
    seen.verification_ignored = exists(PELKIN_IGNORE_VERIFICATION_FILE);
    seen.result_ignored = exists(PELKIN_IGNORE_RESULT_FILE);
    return seen;
}

static std::string json_text(const std::string &text)
{
    std::string quoted = "\"";
    for (const char character : printable(text)) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character == '\n' || character == '\t' ? ' ' : character;
    }
    return quoted + "\"";
}

static std::string json_number(const std::optional<long> &number)
{
    return number ? std::to_string(*number) : "null";
}

static std::string milliseconds(const probe_result &probe)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.3f", probe.answer_ms);
    return text;
}

static const char *json_bool(bool value)
{
    return value ? "true" : "false";
}

static std::string as_json(const daemon_status &seen)
{
    const bool found = seen.process.pid != 0;
    const bool alive = seen.probe.status == STATUS_DONE;
    return "{\"pid\":" + (found ? std::to_string(seen.process.pid) : "null") +
           ",\"problem\":" + (found ? "null" : json_text(seen.process.problem)) +
           ",\"alive\":" + json_alive(seen.probe) +
           ",\"answer_ms\":" + (alive ? milliseconds(seen.probe) : "null") +
           ",\"level_file\":" + json_number(seen.level) +
           ",\"ignore_verification\":" + json_bool(seen.verification_ignored) +
           ",\"ignore_result\":" + json_bool(seen.result_ignored) +
           ",\"threads\":" + json_number(seen.figures.threads) +
           ",\"descriptors\":" + json_number(seen.figures.descriptors) +
           ",\"resident_kib\":" + json_number(seen.figures.resident_kib) + "}\n";
}

static std::string level_file_text(const daemon_status &seen)
{
    if (!seen.level_file) {
        return "none";
    }
    if (!seen.level) {
        return "holds no number";
    }
    const char *name = *seen.level >= 0 && *seen.level <= 7
                           ? vesk_syslog_encode((int32_t)*seen.level, tu_prioritynames)
                           : nullptr;
    return std::to_string(*seen.level) + (name != nullptr ? std::string(" (") + name + ")" : "");
}

static std::string number_text(const std::optional<long> &number, const char *unit)
{
    return number ? std::to_string(*number) + unit : "not known";
}

static std::string switch_text(bool on)
{
    return on ? "on" : "off";
}

static std::string as_text(const daemon_status &seen)
{
    const bool alive = seen.probe.status == STATUS_DONE;
    const std::string pid = seen.process.pid != 0 ? std::to_string(seen.process.pid) : "none";
    const char *const unanswered = seen.probe.not_allowed ? "not known" : "no answer";
    const std::string liveness =
        alive ? "alive, answered in " + milliseconds(seen.probe) + " ms" : unanswered;
    return "pid                  " + pid + "\n" +                                           //
           "liveness             " + liveness + "\n" +                                      //
           "trace level file     " + level_file_text(seen) + "\n" +                         //
           "ignore verification  " + switch_text(seen.verification_ignored) + "\n" +        //
           "ignore result        " + switch_text(seen.result_ignored) + "\n" +              //
           "threads              " + number_text(seen.figures.threads, "") + "\n" +         //
           "descriptors          " + number_text(seen.figures.descriptors, "") + "\n" +     //
           "resident memory      " + number_text(seen.figures.resident_kib, " KiB") + "\n"; //
}

int run_status(bool json)
{
    const daemon_status seen = look();
    return write_out(json ? as_json(seen) : as_text(seen)) ? seen.probe.status : STATUS_USAGE;
}
