/* The log service's place taken, and the daemon's records read there. */
#ifndef PELKIN_TOOLS_LOG_RECORDS_H
#define PELKIN_TOOLS_LOG_RECORDS_H

#include <cstdint>
#include <string>
#include <vector>

/* A record, made printable. */
struct log_record {
    uint32_t level;
    std::string process;
    std::string text; /* "function():message", line breaks only within it */
};

/* Its two halves; a text without a function is a message as a whole. */
std::string function_of(const log_record &record);
std::string message_of(const log_record &record);

/* Serves the log service's socket: a descriptor, or -1, said, when that can't be. */
int serve_log();

/* The same without a word. */
int try_to_serve_log();

/*
 * Adds what waits at `fd`, at most 64 records, so that a flood can't hold up what else there is to
 * do. A datagram that is no record is said and dropped. False, said, when the socket fails.
 */
bool take_records(int fd, std::vector<log_record> *records);

/* "err" and the like; "level N" where there is no name. */
std::string level_text(uint32_t level);

#endif
