// One `curl` process a request, started without a shell: what a module does that has no daemon.
#include "bench/load.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/answer.h"

static const char *url;
static int answer_file = -1;
static char answer_path[64];

static int32_t open_process(const struct load_order *order)
{
    url = order->urls[0];
    (void)snprintf(answer_path, sizeof answer_path, "/tmp/pelkin_bench.%d", getpid());
    answer_file = open(answer_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (answer_file < 0) {
        load_complain(answer_path);
        return -1;
    }
    return 0;
}

static int32_t run_curl(void)
{
    const char *const arguments[] = {"curl", "-q", "-s", "-k", "-o", answer_path, url, nullptr};
    pid_t child = -1;
    const int error =
        posix_spawnp(&child, "curl", nullptr, nullptr, (char *const *)arguments, environ);
    int status = -1;
    if (error != 0 || waitpid(child, &status, 0) != child || status != 0) {
        fputs("pelkin_bench_load: curl failed\n", stderr);
        return -1;
    }
    return 0;
}

static uint32_t step_process(void)
{
    char body[sizeof BENCH_BODY + 1];
    if (ftruncate(answer_file, 0) != 0 || run_curl() != 0) {
        return 0;
    }
    const ssize_t got = pread(answer_file, body, sizeof body, 0);
    if (got != sizeof BENCH_BODY - 1 || memcmp(body, BENCH_BODY, (size_t)got) != 0) {
        fputs("pelkin_bench_load: curl: a wrong answer\n", stderr);
        return 0;
    }
    return 1;
}

static void close_process(void)
{
    (void)close(answer_file);
    (void)unlink(answer_path);
}

const struct load_contender load_process = {.name = "process",
                                            .open = open_process,
                                            .step = step_process,
                                            .close = close_process,
                                            .warm_up = 1};
