#include "tools/own_socket.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/ipc_open_sock.h"
#include "tools/output.h"

struct own_file {
    char path[sizeof(sockaddr_un::sun_path)];
    dev_t device;
    ino_t inode;
};

static const int FILES_MAX = 2; // a reply socket and one that is served
static const int NAME_TRIES = 100;
static const int GUARDED[] = {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT};

// Written with the guarded signals held back, read by their handler.
static own_file files[FILES_MAX];
static volatile sig_atomic_t file_count;
static volatile sig_atomic_t interrupt_is_the_end;

void remove_own_sockets()
{
    for (int i = 0; i < file_count; i++) {
        struct stat status;
        if (lstat(files[i].path, &status) == 0 && status.st_dev == files[i].device &&
            status.st_ino == files[i].inode) {
            (void)unlink(files[i].path);
        }
    }
}

// Only async-signal-safe calls.
static void leave(int number)
{
    remove_own_sockets();
    if (interrupt_is_the_end != 0 && (number == SIGINT || number == SIGTERM)) {
        _exit(0);
    }
    (void)signal(number, SIG_DFL);
    (void)raise(number); // takes effect when this handler returns
}

static sigset_t guarded_set()
{
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : GUARDED) {
        (void)sigaddset(&set, number);
    }
    return set;
}

// nohup and the like have these two ignored. SIGINT is ignored in every background job of a script
// as well, which is no wish to outlive it; SIGPIPE in children of programs that ignore it.
static bool may_stay_ignored(int number)
{
    struct sigaction before;
    return (number == SIGHUP || number == SIGQUIT) && sigaction(number, nullptr, &before) == 0 &&
           before.sa_handler == SIG_IGN;
}

void guard_own_sockets()
{
    struct sigaction action = {};
    action.sa_handler = leave;
    action.sa_mask = guarded_set();
    for (const int number : GUARDED) {
        if (!may_stay_ignored(number)) {
            (void)sigaction(number, &action, nullptr);
        }
    }
    const sigset_t set = guarded_set();
    (void)sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void end_in_order_when_interrupted()
{
    interrupt_is_the_end = 1;
}

static void remember(const char *path)
{
    struct stat status;
    if (file_count < FILES_MAX && lstat(path, &status) == 0) {
        own_file *file = &files[file_count];
        (void)snprintf(file->path, sizeof file->path, "%s", path);
        file->device = status.st_dev;
        file->inode = status.st_ino;
        file_count = file_count + 1;
    }
}

// Binds to a name that nobody has. 0, or -1 with errno.
static int bind_fresh_name(int fd)
{
    std::random_device random;
    for (int tries = 0; tries < NAME_TRIES; tries++) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        (void)snprintf(address.sun_path, sizeof address.sun_path, "/tmp/pelkinctl-%d-%08x",
                       getpid(), random());
        if (bind(fd, (const sockaddr *)&address, sizeof address) == 0) {
            remember(address.sun_path);
            return 0;
        }
        if (errno != EADDRINUSE) {
            return -1;
        }
    }
    return -1;
}

int bind_reply_socket()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    // The signals wait, so that none can come between a file's making and its being remembered.
    const sigset_t set = guarded_set();
    sigset_t before;
    (void)sigprocmask(SIG_BLOCK, &set, &before);
    const mode_t old_mask = umask(0177);
    const int rc = bind_fresh_name(fd);
    const int bind_errno = errno;
    (void)umask(old_mask);
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    if (rc != 0) {
        (void)close(fd);
        errno = bind_errno;
        return -1;
    }
    return fd;
}

static void say_why_not_served(const char *path, const char *server, int error)
{
    struct stat status;
    if (error != EADDRINUSE) {
        say("cannot serve %s: %s", path, std::strerror(error));
    } else if (lstat(path, &status) == 0 && !S_ISSOCK(status.st_mode)) {
        say("cannot serve %s: what stands there is no socket; remove it first", path);
    } else {
        say("%s is served already, by %s or another pelkinctl; end that one first", path, server);
    }
}

int serve_socket(const char *path, const char *server)
{
    const sigset_t set = guarded_set();
    sigset_t before;
    (void)sigprocmask(SIG_BLOCK, &set, &before);
    const int fd = ipc_open_sock(path);
    const int error = errno;
    if (fd >= 0) {
        remember(path);
    }
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    if (fd < 0) {
        say_why_not_served(path, server, error);
    }
    return fd;
}
