#include "tools/status.h"

#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "tools/daemon_memory.h"
#include "tools/daemon_process.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/printable.h"
#include "tools/steering_files.h"

struct daemon_status {
    daemon_process process;
    process_figures figures;
    probe_result probe;
    steering_files files;
    in_force words;
};

static daemon_status look(const probe_command &command)
{
    daemon_status seen = {};
    seen.probe = probe_daemon(command.socket, command.timeout_s);
    seen.process = find_daemon(seen.probe.pid);
    if (seen.probe.status != STATUS_DONE) {
        say("%s", seen.probe.problem.c_str());
    }
    if (seen.process.pid != 0) {
        seen.figures = read_figures(seen.process.pid);
        seen.words = read_in_force(seen.process.pid);
    } else {
        say("%s", seen.process.problem.c_str());
    }
    seen.files = look_at_files();
    return seen;
}

static std::string json_number(const std::optional<long> &number)
{
    return number ? std::to_string(*number) : "null";
}

static std::string milliseconds(const probe_result &probe)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", probe.answer_ms);
    return text;
}

static const char *json_bool(bool value)
{
    return value ? "true" : "false";
}

// A switch in force; where it is not known, null.
static const char *json_switch(const std::optional<uint32_t> &word)
{
    if (!word) {
        return "null";
    }
    return json_bool(*word != 0);
}

static std::string as_json(const daemon_status &seen)
{
    const bool found = seen.process.pid != 0;
    const bool alive = seen.probe.status == STATUS_DONE;
    return "{\"pid\":" + (found ? std::to_string(seen.process.pid) : "null") +
           ",\"problem\":" + (found ? "null" : json_text(seen.process.problem)) +
           ",\"alive\":" + json_alive(seen.probe) +
           ",\"answer_ms\":" + (alive ? milliseconds(seen.probe) : "null") + ",\"level\":" +
           (seen.words.level ? std::to_string((int32_t)*seen.words.level) : "null") +
           ",\"level_file\":" + json_number(seen.files.level) +
           ",\"ignore_verification\":" + json_switch(seen.words.verification_ignored) +
           ",\"ignore_verification_file\":" + json_bool(seen.files.verification_ignored) +
           ",\"ignore_result\":" + json_switch(seen.words.result_ignored) +
           ",\"ignore_result_file\":" + json_bool(seen.files.result_ignored) +
           ",\"threads\":" + json_number(seen.figures.threads) +
           ",\"descriptors\":" + json_number(seen.figures.descriptors) +
           ",\"resident_kib\":" + json_number(seen.figures.resident_kib) + "}\n";
}

static std::string number_text(const std::optional<long> &number, const char *unit)
{
    return number ? std::to_string(*number) + unit : "not known";
}

static std::string as_text(const daemon_status &seen)
{
    const bool alive = seen.probe.status == STATUS_DONE;
    const std::string pid = seen.process.pid != 0 ? std::to_string(seen.process.pid) : "none";
    const char *const unanswered = seen.probe.not_allowed ? "not known" : "no answer";
    const std::string liveness =
        alive ? "alive, answered in " + milliseconds(seen.probe) + " ms" : unanswered;
    const std::pair<const char *, std::string> lines[] = {
        {"pid", pid},
        {"liveness", liveness},
        {"log level", level_state_text(seen.files, seen.words.level)},
        {"ignore verification",
         switch_state_text(seen.files.verification_ignored, seen.words.verification_ignored)},
        {"ignore result", switch_state_text(seen.files.result_ignored, seen.words.result_ignored)},
        {"threads", number_text(seen.figures.threads, "")},
        {"descriptors", number_text(seen.figures.descriptors, "")},
        {"resident memory", number_text(seen.figures.resident_kib, " KiB")},
    };
    std::string text;
    for (const auto &[name, value] : lines) {
        std::string head = name;
        head.resize(21, ' ');
        text += head + value + "\n";
    }
    return text;
}

int run_status(const probe_command &command)
{
    const daemon_status seen = look(command);
    return is_quiet() || write_out(command.json ? as_json(seen) : as_text(seen)) ? seen.probe.status
                                                                                 : STATUS_USAGE;
}
