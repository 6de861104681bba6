/*
 * The load of the benchmark. A contender is one way of getting answers from the server; all are
 * timed by the same loop (load.cpp), each in a process of its own. Everything here is used by one
 * thread.
 */
#ifndef PELKIN_BENCH_LOAD_H
#define PELKIN_BENCH_LOAD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What is to be done, from the command line. */
struct load_order {
    char *const *urls;    /* "http://name/path" or "https://name/path", at least one */
    uint32_t url_count;   /* the daemon's load takes them in turn, the others the first */
    uint32_t outstanding; /* requests that are under way at any time; the daemon's load only */
    uint64_t requests;    /* no more than these are made */
};

struct load_contender {
    const char *name;
    /* Makes everything ready for `order`, which outlives the contender. 0, or -1 (said on standard
     * error). */
    int32_t (*open)(const struct load_order *order);
    /* Asks for one or more answers, waits for at least one and checks what came. The number of
     * answers, or 0 on failure (said on standard error). */
    uint32_t (*step)(void);
    /* Ends what `open` began. */
    void (*close)(void);
    uint32_t warm_up; /* answers that are not counted, before the clock is started; see -w */
};

extern const struct load_contender load_bare;    /* one connection, one write and read a request */
extern const struct load_contender load_daemon;  /* through the daemon's request socket */
extern const struct load_contender load_libcurl; /* one reused libcurl handle */
extern const struct load_contender load_process; /* one `curl` process a request */

/* Prints "pelkin_bench_load: WHAT" and the text of errno on standard error. */
void load_complain(const char *what);

#ifdef __cplusplus
}
#endif
#endif
