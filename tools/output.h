/*
 * The two ways out: answers and data to standard output, everything said about them to standard
 * error. Standard output is written without a buffer, so that nothing is held back in a pipe.
 */
#ifndef PELKIN_TOOLS_OUTPUT_H
#define PELKIN_TOOLS_OUTPUT_H

#include <string_view>

/* From now on say() says nothing and is_quiet() holds. */
void be_quiet();
bool is_quiet();

/* One printable line to standard error, headed by the program's name, cut at 2 KiB. */
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Writes all of it to standard output. False, said, when that fails. */
bool write_out(std::string_view bytes);

/* An answer from outside: as it is, but on a terminal printable and ended by a line break. */
bool write_answer(std::string_view answer);

/* Whether standard output is a terminal, and one that may be coloured (no-color.org). */
bool output_is_terminal();
bool output_is_coloured();

#endif
