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
    int fd;
    char path[sizeof(sockaddr_un::sun_path)];
    dev_t device;
    ino_t inode;
};

static const int NAME_TRIES = 100;
static const int GUARDED[] = {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT};

// Written with the guarded signals held back, read by their handler. Places without a path are
// free.
static own_file files[OWN_SOCKETS_MAX];
static volatile sig_atomic_t interrupt_is_the_end;
static void (*volatile words_at_the_end)();

// Another program's file of that name stays.
static void remove_file(const own_file *file)
{
    struct stat status;
    if (file->path[0] != '\0' && lstat(file->path, &status) == 0 && status.st_dev == file->device &&
        status.st_ino == file->inode) {
        unlink(file->path);
    }
}

void remove_own_sockets()
{
    for (const own_file &file : files) {
        remove_file(&file);
    }
}

// Only async-signal-safe calls.
static void leave(int number)
{
    remove_own_sockets();
    if (interrupt_is_the_end != 0 && (number == SIGINT || number == SIGTERM)) {
        if (words_at_the_end != nullptr) {
            words_at_the_end();
        }
        _exit(0);
    }
    signal(number, SIG_DFL);
    raise(number); // takes effect when this handler returns
}

static sigset_t guarded_set()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : GUARDED) {
        sigaddset(&set, number);
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
            sigaction(number, &action, nullptr);
        }
    }
    const sigset_t set = guarded_set();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void end_in_order_when_interrupted(void (*last_words)())
{
    words_at_the_end = last_words;
    interrupt_is_the_end = 1;
}

static void remember(int fd, const char *path)
{
    struct stat status;
    for (own_file &file : files) {
        if (file.path[0] == '\0' && lstat(path, &status) == 0) {
            file.fd = fd;
            file.device = status.st_dev;
            file.inode = status.st_ino;
            std::snprintf(file.path, sizeof file.path, "%s", path);
            return;
        }
    }
}

void close_own_socket(int fd)
{
    const sigset_t set = guarded_set();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &set, &before);
    for (own_file &file : files) {
        if (file.path[0] != '\0' && file.fd == fd) {
            remove_file(&file);
            file.path[0] = '\0';
        }
    }
    if (fd >= 0) {
        close(fd);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

// Binds to a name that nobody has. 0, or -1 with errno.
static int bind_fresh_name(int fd)
{
    std::random_device random;
    for (int tries = 0; tries < NAME_TRIES; tries++) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "/tmp/pelkinctl-%d-%08x", getpid(),
                      random());
        if (bind(fd, (const sockaddr *)&address, sizeof address) == 0) {
            remember(fd, address.sun_path);
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
    sigprocmask(SIG_BLOCK, &set, &before);
    const mode_t old_mask = umask(0177);
    const int rc = bind_fresh_name(fd);
    const int bind_errno = errno;
    umask(old_mask);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (rc != 0) {
        close(fd);
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

int try_to_serve_socket(const char *path)
{
    const sigset_t set = guarded_set();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &set, &before);
    const int fd = ipc_open_sock(path);
    const int error = errno;
    if (fd >= 0) {
        remember(fd, path);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return fd;
}

int serve_socket(const char *path, const char *server)
{
    const int fd = try_to_serve_socket(path);
    if (fd < 0) {
        say_why_not_served(path, server, errno);
    }
    return fd;
}
