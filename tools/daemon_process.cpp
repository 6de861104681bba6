#include "tools/daemon_process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iterator>

#include "core/daemon/monitor.h"
#include "core/daemon/startup.h"
#include "tools/exit_status.h"
#include "tools/init_system.h"
#include "tools/output.h"
#include "tools/probe.h"
#include "tools/text_fields.h"

static const char DAEMON_NAME[] = "pelkin";

std::string proc_path(pid_t pid, const std::string &entry)
{
    return "/proc/" + std::to_string(pid) + "/" + entry;
}

std::optional<std::string> read_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The text behind "key:" of /proc/PID/status, white space left out; "" when there is none.
static std::string status_field(const std::string &status, const std::string &key)
{
    const std::string head = "\n" + key + ":";
    const size_t found = ("\n" + status).find(head);
    if (found == std::string::npos) {
        return "";
    }
    const size_t line_end = status.find('\n', found);
    const std::string line = status.substr(found, line_end - found);
    const size_t text = line.find_first_not_of(" \t", head.size() - 1);
    return text == std::string::npos ? "" : line.substr(text);
}

static std::optional<long> status_number(const std::string &status, const std::string &key)
{
    int32_t number = 0;
    const std::string field = status_field(status, key);
    if (!parse_int32(field.substr(0, field.find(' ')), &number)) {
        return std::nullopt;
    }
    return number;
}

static daemon_process find_by_file()
{
    const std::string file = PELKIN_PID_FILE;
    const std::optional<std::string> text = read_text(file);
    if (!text) {
        return {.pid = 0,
                .problem = "pelkin is not running: " + file + ": " + std::strerror(errno)};
    }
    int32_t pid = 0;
    const size_t used = text->find_last_not_of(" \t\n");
    if (used == std::string::npos || !parse_int32(text->substr(0, used + 1), &pid) || pid <= 0) {
        return {.pid = 0, .problem = file + " holds no process id"};
    }
    const std::string status = read_text(proc_path(pid, "status")).value_or("");
    const std::string name = status_field(status, "Name");
    const std::string stale = file + " is stale: process " + std::to_string(pid);
    if (status.empty()) {
        return {.pid = 0, .problem = stale + " does not exist; pelkin has ended"};
    }
    if (name != DAEMON_NAME) {
        return {.pid = 0, .problem = stale + " is another program (" + name + ")"};
    }
    if (status_field(status, "State").rfind('Z', 0) == 0) {
        return {.pid = 0, .problem = stale + " has ended and waits for its parent"};
    }
    return {.pid = pid, .problem = ""};
}

daemon_process find_daemon(pid_t answered)
{
    if (answered > 0 && status_field(read_text(proc_path(answered, "status")).value_or(""),
                                     "Name") == DAEMON_NAME) {
        return {.pid = answered, .problem = ""};
    }
    return find_by_file();
}

int signal_daemon(int number, pid_t *pid)
{
    const daemon_process found = find_daemon(probe_daemon(PELKIN_MONITOR_SOCKET_PATH, 1).pid);
    if (found.pid == 0) {
        say("%s. Nothing was signalled; start pelkin first%s", found.problem.c_str(),
            command_hint("start").c_str());
        return STATUS_UNREACHABLE;
    }
    if (kill(found.pid, number) != 0) {
        say("cannot signal pelkin (pid %d): %s; run as root", (int)found.pid, std::strerror(errno));
        return STATUS_UNREACHABLE;
    }
    *pid = found.pid;
    return STATUS_DONE;
}

static std::optional<long> count_descriptors(pid_t pid)
{
    DIR *directory = opendir(proc_path(pid, "fd").c_str());
    if (directory == nullptr) {
        return std::nullopt;
    }
    long count = 0;
    while (const dirent *entry = readdir(directory)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(directory);
    return count;
}

process_figures read_figures(pid_t pid)
{
    const std::string status = read_text(proc_path(pid, "status")).value_or("");
    return {.threads = status_number(status, "Threads"),
            .resident_kib = status_number(status, "VmRSS"),
            .descriptors = count_descriptors(pid)};
}
