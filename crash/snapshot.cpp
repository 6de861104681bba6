#include "crash/snapshot.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "crash/dump_text.h"

static const size_t COMMAND_SIZE = 256;
static const int POLL_MILLISECONDS = 5;

static int64_t milliseconds_now(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The child's whole life. It leads a process group, so that what the shell starts can be killed
// with it; the handler's signal mask would be inherited by the commands.
[[noreturn]] static void become_shell(const char *command)
{
    char *const arguments[] = {(char *)"sh", (char *)"-c", (char *)command, nullptr};
    char *const bare_environment[] = {(char *)"PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    sigset_t none;
    (void)setpgid(0, 0);
    (void)sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, nullptr);
    (void)execve("/bin/sh", arguments, environ);
    (void)execve("/bin/sh", arguments, bare_environment); // the environment may be overwritten
    _exit(127);
}

// Waits until the child has ended; the main thread may have reaped it. False when time is up.
static bool wait_for(pid_t child, int64_t deadline)
{
    for (;;) {
        const pid_t ended = waitpid(child, nullptr, WNOHANG);
        if (ended == child || (ended < 0 && errno == ECHILD)) {
            return true;
        }
        if (milliseconds_now() >= deadline) {
            return false;
        }
        (void)poll(nullptr, 0, POLL_MILLISECONDS);
    }
}

// Runs the command "BEFORE FILE.unix_zel". False when it had to be killed or could not be started.
static bool run(const char *before, const char *dump_file, int64_t deadline)
{
    char command[COMMAND_SIZE];
    struct dump_text text = {.bytes = command, .size = sizeof command - 1, .used = 0, .fd = -1};
    dump_put(&text, before);
    dump_put(&text, dump_file);
    dump_put(&text, ".unix_zel");
    command[text.used] = '\0';

    // fork() would run fork handlers, which may wait for a lock that the crash left taken.
    const pid_t child = (pid_t)syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (child == 0) {
        become_shell(command);
    }
    if (child < 0) {
        return false;
    }
    (void)setpgid(child, child); // whichever of the two comes first
    if (!wait_for(child, deadline)) {
        (void)kill(-child, SIGKILL);
        return false;
    }
    return true;
}

void crash_take_snapshot(const char *dump_file)
{
    const int64_t deadline = milliseconds_now() + CRASH_SNAPSHOT_MILLISECONDS;
    if (run("date > ", dump_file, deadline)) {
        (void)run("cat /proc/net/unix_zel >> ", dump_file, deadline);
    }
}
