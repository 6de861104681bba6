#include "pool/answer_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/http_task.h"
#include "log/log.h"

static const mode_t ANSWER_MODE = 0007;

// Makes the directory part of `path` when it does not exist. 0, or -1 when that fails.
static int32_t make_directory_of(const char *path)
{
    const char *slash = strrchr(path, '/');
    if (slash == nullptr || slash == path) {
        return 0;
    }
    char directory[HTTP_TASK_FILE_PATH_SIZE];
    const size_t length = (size_t)(slash - path);
    if (length >= sizeof directory) {
        return 0; // not from a task; opening the file will tell
    }
    memcpy(directory, path, length);
    directory[length] = '\0';

    DIR *existing = opendir(directory);
    if (existing != nullptr) {
        closedir(existing);
        return 0;
    }
    // Another worker may make the same one meanwhile.
    if (errno == ENOENT && mkdir(directory, 0755) != 0 && errno != EEXIST) {
        PELKIN_LOG_AS("pelkin_send_to_file", ERROR, "make directory failed:%s.", directory);
        return -1;
    }
    return 0;
}

// Whether a link at `name` in `directory` may be followed. In a sticky directory that everybody may
// write to (/tmp), only the directory's owner and the daemon's own user are trusted: nobody else
// can replace their links between this look and the opening.
static bool is_trusted_link(int directory, const char *name)
{
    struct stat around;
    struct stat link;
    if (fstat(directory, &around) != 0 ||
        fstatat(directory, name, &link, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const mode_t shared = S_ISVTX | S_IWOTH;
    return (around.st_mode & shared) != shared || link.st_uid == geteuid() ||
           link.st_uid == around.st_uid;
}

// As open_answer_file(), where a link stands at `path`.
static int open_through_link(const char *path, int flags)
{
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    char directory[HTTP_TASK_FILE_PATH_SIZE + 1] = ".";
    const size_t length = (size_t)(name - path);
    if (length >= sizeof directory) {
        return -1; // not from a task
    }
    memcpy(directory, path, length);
    const int opened = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int fd = opened >= 0 && is_trusted_link(opened, name)
                       ? openat(opened, name, flags, ANSWER_MODE)
                       : -1;
    if (opened >= 0) {
        close(opened);
    }
    return fd;
}

// A pipe without a reader, or one that is full, must not hold the worker.
static int open_answer_file(const char *path)
{
    static const int flags = O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = open(path, flags | O_NOFOLLOW, ANSWER_MODE);
    return fd < 0 && errno == ELOOP ? open_through_link(path, flags) : fd;
}

int32_t pelkin_send_to_file(const char *path, const char *buffer, size_t length)
{
    if (make_directory_of(path) != 0) {
        return -1;
    }
    const int fd = open_answer_file(path);
    if (fd < 0) {
        PELKIN_LOG_ERROR("open file %s fail.", path);
        return -1;
    }
    // A disk that fills up in the middle takes a part, without an error.
    const bool written = write(fd, buffer, length) == (ssize_t)length;
    if (!written) {
        PELKIN_LOG_ERROR("write fail.");
    }
    close(fd);
    return written ? 0 : -1;
}
