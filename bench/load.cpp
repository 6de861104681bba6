/*
 * The load of the benchmark: carries requests through one contender for some time or some number of
 * them, and prints one line: requests a second, processor time a request in microseconds, median
 * time between two answers in microseconds (the latency, with one outstanding), and answers.
 */
#include "bench/load.h"

#include <algorithm>
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vector>

static const double NS_A_SECOND = 1e9;
static const double NS_A_MICROSECOND = 1e3;

struct load_limits {
    double seconds;   // the run ends after this time
    uint64_t answers; // or with this number
    uint64_t warm_up; // answers before the clock is started
};

struct load_result {
    uint64_t answers;
    double wall_ns;
    double processor_ns;
    double median_gap_ns;
};

void load_complain(const char *what)
{
    const int error = errno;
    char text[128];
    fprintf(stderr, "pelkin_bench_load: %s: %s\n", what, strerror_r(error, text, sizeof text));
}

static double read_clock(clockid_t clock)
{
    struct timespec now = {};
    (void)clock_gettime(clock, &now);
    return (double)now.tv_sec * NS_A_SECOND + (double)now.tv_nsec;
}

static double take_median(std::vector<double> *values)
{
    const auto middle = values->begin() + (std::ptrdiff_t)(values->size() / 2);
    std::nth_element(values->begin(), middle, values->end());
    return *middle;
}

static int32_t run(const struct load_contender *contender, const struct load_limits *limits,
                   clockid_t processor, struct load_result *result)
{
    for (uint64_t warm = 0; warm < limits->warm_up;) {
        const uint32_t answers = contender->step();
        if (answers == 0) {
            return -1;
        }
        warm += answers;
    }
    std::vector<double> gaps;
    gaps.reserve(1U << 20U);
    const double processor_start = read_clock(processor);
    const double start = read_clock(CLOCK_MONOTONIC);
    double now = start;
    while (now - start < limits->seconds * NS_A_SECOND && result->answers < limits->answers) {
        const uint32_t answers = contender->step();
        if (answers == 0) {
            return -1;
        }
        result->answers += answers;
        const double before = now;
        now = read_clock(CLOCK_MONOTONIC);
        gaps.push_back(now - before);
    }
    result->processor_ns = read_clock(processor) - processor_start;
    result->wall_ns = now - start;
    result->median_gap_ns = take_median(&gaps);
    return 0;
}

static const struct load_contender *find_contender(const char *name)
{
    static const struct load_contender *const all[] = {&load_bare, &load_daemon, &load_process,
#ifdef BENCH_LIBCURL
                                                       &load_libcurl
#endif
    };
    for (const struct load_contender *contender : all) {
        if (strcmp(contender->name, name) == 0) {
            return contender;
        }
    }
    return nullptr;
}

static int usage(void)
{
    fputs("usage: pelkin_bench_load [-s SECONDS] [-n ANSWERS] [-w WARM_UP] [-o OUTSTANDING] "
          "[-p PID] bare|daemon|libcurl|process URL...\n"
          "  -w: answers that are not counted, at the start\n"
          "  -p: the process whose processor time is measured; by default this one\n",
          stderr);
    return 1;
}

static int report(const struct load_contender *contender, struct load_limits *limits,
                  clockid_t processor, struct load_order *order)
{
    if (limits->warm_up == UINT64_MAX) {
        limits->warm_up = contender->warm_up;
    }
    if (limits->answers != UINT64_MAX) {
        order->requests = limits->warm_up + limits->answers;
    }
    struct load_result result = {};
    if (contender->open(order) != 0 || run(contender, limits, processor, &result) != 0) {
        return 1;
    }
    contender->close();
    const double answers = (double)result.answers;
    printf("%.1f %.3f %.3f %llu\n", answers / result.wall_ns * NS_A_SECOND,
           result.processor_ns / answers / NS_A_MICROSECOND,
           result.median_gap_ns / NS_A_MICROSECOND, (unsigned long long)result.answers);
    return 0;
}

int main(int argc, char **argv)
{
    struct load_limits limits = {.seconds = 1e6, .answers = UINT64_MAX, .warm_up = UINT64_MAX};
    struct load_order order = {
        .urls = nullptr, .url_count = 0, .outstanding = 1, .requests = UINT64_MAX};
    clockid_t processor = CLOCK_PROCESS_CPUTIME_ID;
    int option = 0;
    while ((option = getopt(argc, argv, "s:n:w:o:p:")) != -1) { // NOLINT(concurrency-mt-unsafe)
        if (option == 's') {
            limits.seconds = strtod(optarg, nullptr);
        } else if (option == 'n') {
            limits.answers = strtoull(optarg, nullptr, 10);
        } else if (option == 'w') {
            limits.warm_up = strtoull(optarg, nullptr, 10);
        } else if (option == 'o') {
            order.outstanding = (uint32_t)strtoul(optarg, nullptr, 10);
        } else if (option != 'p') {
            return usage();
        } else if (clock_getcpuclockid((pid_t)strtol(optarg, nullptr, 10), &processor) != 0) {
            fprintf(stderr, "pelkin_bench_load: no process %s\n", optarg);
            return 1;
        }
    }
    if (argc - optind < 2) {
        return usage();
    }
    const struct load_contender *contender = find_contender(argv[optind]);
    order.urls = argv + optind + 1;
    order.url_count = (uint32_t)(argc - optind - 1);
    return contender == nullptr ? usage() : report(contender, &limits, processor, &order);
}
