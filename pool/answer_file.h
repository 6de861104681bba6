/* Delivery of an answer to a file. */
#ifndef PELKIN_POOL_ANSWER_FILE_H
#define PELKIN_POOL_ANSWER_FILE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes `length` bytes of `buffer` to the file `path` (at most 141 characters), made with mode
 * 0007 when it is not there; of its directories only the last one is made (0755). A longer file
 * keeps its old bytes behind the new ones: files are not truncated. A link at `path` is followed,
 * but in a sticky directory that everybody may write to only one of the directory's owner or of the
 * daemon's user. 0, or -1 (logged), also when only a part could be written. Any thread.
 */
int32_t pelkin_send_to_file(const char *path, const char *buffer, size_t length);

#ifdef __cplusplus
}
#endif
#endif
