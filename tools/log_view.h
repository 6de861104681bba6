/* `pelkinctl log`: the log service's place taken, and its records shown as they come. */
#ifndef PELKIN_TOOLS_LOG_VIEW_H
#define PELKIN_TOOLS_LOG_VIEW_H

#include <cstdint>
#include <string>

struct log_command {
    int32_t level = -1;  /* the least important one that is shown; -1: all are */
    std::string pattern; /* extended regular expression that a record's text must match; "": none */
    double for_s = 0;    /* ends after this time; 0: doesn't */
    bool json = false;
    bool count = false; /* only the number of records, at the end */
};

/* What is wrong with a regular expression, "" when nothing is. */
std::string pattern_fault(const std::string &pattern);

/* Until it is interrupted, its time is over, or nobody reads standard output any more. */
int run_log(const log_command &command);

#endif
