/* `pelkinctl workers` and `pelkinctl top`: what the daemon is doing, once or again and again. */
#ifndef PELKIN_TOOLS_TOP_H
#define PELKIN_TOOLS_TOP_H

/* The workers as they are now. */
int run_workers(bool json);

struct top_command {
    double interval_s = 2;
    double for_s = 0; /* ends after this time; 0: when it is interrupted */
    bool json = false;
};

/* The workers at each interval, and how often what has failed since the start, by its cause. */
int run_top(const top_command &command);

#endif
