#include "tools/steer.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "core/daemon/signals.h"
#include "log/level_names.h"
#include "tools/daemon_memory.h"
#include "tools/daemon_process.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/steering_files.h"

int32_t parse_level(const std::string &text)
{
    // The table's own lookup takes a number's first digits for the whole.
    const bool is_number = text.find_first_not_of("0123456789") == std::string::npos;
    const bool starts_as_one = !text.empty() && text[0] >= '0' && text[0] <= '9';
    return starts_as_one != is_number || text.empty()
               ? -1
               : vesk_syslog_decode(text.c_str(), tu_prioritynames);
}

static bool remove_file(const char *path)
{
    if (unlink(path) == 0 || errno == ENOENT) {
        return true;
    }
    say("cannot remove %s: %s", path, std::strerror(errno));
    return false;
}

// Always a new file of our own: what stands there, in a directory that all may write, could be a
// link to another file.
static bool replace_file(const char *path, const std::string &content)
{
    if (!remove_file(path)) {
        return false;
    }
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    const bool written =
        fd >= 0 && write(fd, content.data(), content.size()) == (ssize_t)content.size();
    if (!written) {
        say("cannot write %s: %s", path, std::strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
    return written;
}

int run_level(int32_t level)
{
    pid_t pid = 0;
    int status = signal_daemon(0, &pid); // no signal: whether there is a daemon for one
    if (status != STATUS_DONE) {
        return status;
    }
    if (!replace_file(PELKIN_LEVEL_FILE, std::to_string(level))) {
        return STATUS_USAGE;
    }
    status = signal_daemon(SIGUSR1, &pid);
    if (status == STATUS_DONE) {
        say("%s holds %d (%s), and pelkin (pid %d) has been told to read it", PELKIN_LEVEL_FILE,
            (int)level, vesk_syslog_encode(level, tu_prioritynames), (int)pid);
    }
    return status;
}

int run_show_level()
{
    pid_t pid = 0;
    const int status = signal_daemon(0, &pid);
    if (status != STATUS_DONE) {
        return status;
    }
    const std::optional<uint32_t> level = read_in_force(pid).level;
    if (!level) {
        say("cannot look into pelkin (pid %d); run as root", (int)pid);
        return STATUS_UNREACHABLE;
    }
    return write_out(level_state_text(look_at_files(), level) + "\n") ? STATUS_DONE : STATUS_USAGE;
}

// Leaves a switch without a value alone.
static bool set_marker(const char *path, const std::optional<bool> &on)
{
    if (!on) {
        return true;
    }
    return *on ? replace_file(path, "") : remove_file(path);
}

static const char *marker_text(const char *path)
{
    return access(path, F_OK) == 0 ? "on" : "off";
}

int run_ignore(const ignore_command &command)
{
    pid_t pid = 0;
    int status = signal_daemon(0, &pid);
    if (status != STATUS_DONE) {
        return status;
    }
    if (!set_marker(PELKIN_IGNORE_VERIFICATION_FILE, command.verification) ||
        !set_marker(PELKIN_IGNORE_RESULT_FILE, command.result)) {
        return STATUS_USAGE;
    }
    status = signal_daemon(SIGUSR2, &pid);
    if (status == STATUS_DONE) {
        say("ignoring verification: %s, result: %s; pelkin (pid %d) has been told",
            marker_text(PELKIN_IGNORE_VERIFICATION_FILE), marker_text(PELKIN_IGNORE_RESULT_FILE),
            (int)pid);
    }
    return status;
}
