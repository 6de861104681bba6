// Stand-ins of the fixed files that the daemon reads and writes: open() and fopen() are wrapped at
// link time, so that the machine's own are out of reach. What stands under /etc or /proc and has no
// stand-in is not there.
#ifndef PELKIN_FUZZ_STAND_IN_FILES_H
#define PELKIN_FUZZ_STAND_IN_FILES_H

#include <string>

void stand_in_put(const char *path, const std::string &content);
void stand_in_remove(const char *path);
std::string stand_in_content(const char *path);

#endif
