/* What stands in arguments and in lines of files, read strictly: all of the text or nothing. */
#ifndef PELKIN_TOOLS_TEXT_FIELDS_H
#define PELKIN_TOOLS_TEXT_FIELDS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/ipc_msg.h"

using mac_address = std::array<uint8_t, PELKIN_MAC_SIZE>;

/* Six bytes in hexadecimal, two digits each, with ":" or "-" between them. */
bool parse_mac(const std::string &text, mac_address *mac);

/* As the daemon prints it. */
std::string mac_text(const uint8_t mac[PELKIN_MAC_SIZE]);

/* Decimal, or hexadecimal behind "0x". */
bool parse_uint32(const std::string &text, uint32_t *number);
bool parse_uint16(const std::string &text, uint16_t *number);

/* Decimal, with or without a sign. */
bool parse_int32(const std::string &text, int32_t *number);

/* More than 0 and at most a day. */
bool parse_seconds(const std::string &text, double *seconds);

/* The texts between the commas. */
std::vector<std::string> split_at_commas(const std::string &text);

/*
 * What a --data argument stands for: the content of FILE for "@FILE", of standard input for "-",
 * else itself. Returns what is wrong with it, "" when nothing is. Of a file one byte more is read
 * than may be sent.
 */
std::string read_data(const std::string &given, std::string *text);

/* A line of a file that counts: not empty and no comment ("#"). */
struct numbered_line {
    size_t number; /* from 1 */
    std::string text;
};

/*
 * The lines that count, without their breaks (LF or CR LF); "-" is standard input. False, said,
 * when the file can't be read.
 */
bool read_lines(const std::string &path, std::vector<numbered_line> *lines);

#endif
