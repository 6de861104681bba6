#include "pool/answer_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/http_task.h"
#include "log/log.h"

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
        (void)closedir(existing);
        return 0;
    }
    // Another worker may make the same one meanwhile.
    if (errno == ENOENT && mkdir(directory, 0755) != 0 && errno != EEXIST) {
        PELKIN_LOG_ERROR("make directory failed:%s.", directory);
        return -1;
    }
    return 0;
}

int32_t pelkin_send_to_file(const char *path, const char *buffer, size_t length)
{
    if (make_directory_of(path) != 0) {
        return -1;
    }
    // A pipe without a reader, or one that is full, must not hold the worker.
    const int fd = open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0007);
    if (fd < 0) {
        PELKIN_LOG_ERROR("open file %s fail.", path);
        return -1;
    }
    // A disk that fills up in the middle takes a part, without an error.
    const bool written = write(fd, buffer, length) == (ssize_t)length;
    if (!written) {
        PELKIN_LOG_ERROR("write fail.");
    }
    (void)close(fd);
    return written ? 0 : -1;
}
