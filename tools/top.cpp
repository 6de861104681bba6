#include "tools/top.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <poll.h>
#include <string>
#include <vector>

#include "tools/daemon_process.h"
#include "tools/exit_status.h"
#include "tools/failure.h"
#include "tools/log_records.h"
#include "tools/output.h"
#include "tools/own_socket.h"
#include "tools/printable.h"
#include "tools/probe.h"
#include "tools/workers.h"

// The daemon's process id, or 0, said, when there is none.
static pid_t find_or_say(pid_t answered)
{
    const daemon_process found = find_daemon(answered);
    if (found.pid == 0) {
        say("%s", found.problem.c_str());
    }
    return found.pid;
}

static pid_t probe_for_pid()
{
    return find_or_say(probe_daemon(PELKIN_MONITOR_SOCKET_PATH, 1).pid);
}

int run_workers(bool json)
{
    const pid_t pid = probe_for_pid();
    if (pid == 0) {
        return STATUS_UNREACHABLE;
    }
    const std::vector<worker_view> workers = read_workers(pid);
    return write_out(json ? workers_json(workers) + "\n" : workers_text(workers)) ? STATUS_DONE
                                                                                  : STATUS_USAGE;
}

// How often each cause has been logged.
using failure_counts = std::map<std::string, long>;

static std::string counts_text(int log, const failure_counts &counts)
{
    if (log < 0) {
        return "not known: another program reads the log here";
    }
    std::string text;
    for (const auto &[cause, count] : counts) {
        text += text.empty() ? "" : ", ";
        text += cause + " " + std::to_string(count);
    }
    return text.empty() ? "none" : text;
}

static std::string counts_json(int log, const failure_counts &counts)
{
    if (log < 0) {
        return "null";
    }
    std::string text = "{";
    for (const auto &[cause, count] : counts) {
        text += text.size() > 1 ? "," : "";
        text += json_text(cause) + ":" + std::to_string(count);
    }
    return text + "}";
}

static std::string now_text()
{
    const time_t now = time(nullptr);
    tm local = {};
    char text[32];
    localtime_r(&now, &local);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

static std::string block(pid_t pid, int log, const failure_counts &counts, bool json)
{
    const std::vector<worker_view> workers = read_workers(pid);
    if (json) {
        return "{\"time\":\"" + now_text() + "\",\"pid\":" + std::to_string(pid) +
               ",\"workers\":" + workers_json(workers) +
               ",\"failures\":" + counts_json(log, counts) + "}\n";
    }
    const process_figures figures = read_figures(pid);
    char head[160];
    std::snprintf(head, sizeof head, "%s  pelkin (pid %d): %zu workers, %ld threads, %ld KiB\n",
                  now_text().c_str(), (int)pid, workers.size(), figures.threads.value_or(0),
                  figures.resident_kib.value_or(0));
    return head + workers_text(workers) + "failures: " + counts_text(log, counts) + "\n";
}

// On a terminal over the last one, line by line, so that nothing flickers.
static bool show_block(const std::string &text, bool json)
{
    if (json || !output_is_terminal()) {
        return write_out(json ? text : text + "\n");
    }
    std::string drawn = "\033[H";
    for (const char character : text) {
        drawn += character == '\n' ? "\033[K\n" : std::string(1, character);
    }
    return write_out(drawn + "\033[J");
}

// Reads the log until the moment has come.
static void count_failures(int log, deadline until, failure_counts *counts)
{
    do {
        pollfd watched = {.fd = log, .events = POLLIN, .revents = 0};
        poll(&watched, 1, milliseconds_left(until));
        std::vector<log_record> records;
        if (log >= 0) {
            take_records(log, &records);
        }
        for (const log_record &record : records) {
            if (const char *cause = failure_cause(message_of(record)); cause != nullptr) {
                (*counts)[cause]++;
            }
        }
    } while (milliseconds_left(until) > 0);
}

int run_top(const top_command &command)
{
    end_in_order_when_interrupted(nullptr);
    const deadline end = deadline_in(command.for_s);
    pid_t pid = probe_for_pid();
    const int log = try_to_serve_log();
    failure_counts counts;
    int status = pid != 0 ? STATUS_DONE : STATUS_UNREACHABLE;
    bool is_last = false;
    while (status == STATUS_DONE) {
        if (!show_block(block(pid, log, counts, command.json), command.json)) {
            status = STATUS_USAGE;
        } else if (is_last) {
            break;
        } else {
            const deadline next = deadline_in(command.interval_s);
            is_last = command.for_s > 0 && next >= end;
            count_failures(log, is_last ? end : next, &counts);
            pid = find_or_say(pid);
            status = pid != 0 ? STATUS_DONE : STATUS_UNREACHABLE;
        }
    }
    close_own_socket(log);
    return status;
}
