// What a log statement costs where it costs most, in the places that every request passes, and what
// a printed line costs while both of its readers read.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "log/log.h"
#include "log/ttylog_modules.h"

static const char HOST[] = "token.example.com";

// The statement as it stands in the daemon, with an argument that the compiler cannot know.
static void run_statements(benchmark::State &state, uint32_t filter_log, uint32_t level)
{
    tu_pelkin_fltlog = filter_log;
    tu_trace_level = level;
    int slots = 100;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(slots);
        PELKIN_LOG_DEBUG("Find a Thread %s:%d, current available task slots[%d]", HOST, 443, slots);
    }
}
BENCHMARK_CAPTURE(run_statements, below_level_no_copy, 0u, TU_LEVEL_NOTICE);
BENCHMARK_CAPTURE(run_statements, below_level_copied, 1u, TU_LEVEL_NOTICE);

// Reads a datagram socket of this name until an empty datagram comes.
struct reader {
    explicit reader(const char *path) : sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
        is_bound = bind(sock, (const struct sockaddr *)&address, sizeof address) == 0;
        thread = std::thread([this] {
            char record[sizeof(struct smart_tty_msg)];
            while (is_bound && recv(sock, record, sizeof record, 0) > 0) {
            }
        });
    }
    ~reader()
    {
        const int closing = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sendto(closing, "", 0, 0, (const struct sockaddr *)&address, sizeof address);
        close(closing);
        thread.join();
        close(sock);
        if (is_bound) {
            unlink(address.sun_path);
        }
    }
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;

    int sock;
    bool is_bound = false;
    struct sockaddr_un address = {};
    std::thread thread;
};

// Processor time of the thread that logs. Inside scripts/sandbox, where both names are free.
static void print_lines(benchmark::State &state, uint32_t filter_log)
{
    const reader service(SMART_TTY_SERVICE_PATH);
    const reader system_log("/dev/log");
    if (!service.is_bound || !system_log.is_bound) {
        state.SkipWithError("the log's sockets are somebody else's");
        return;
    }
    pelkin_ttylog_init();
    tu_pelkin_fltlog = filter_log;
    tu_trace_level = TU_LEVEL_NOTICE;
    int slots = 100;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(slots);
        PELKIN_LOG_NOTICE("Find a Thread %s:%d, current available task slots[%d]", HOST, 443,
                          slots);
    }
    pelkin_ttylog_unregister();
}
BENCHMARK_CAPTURE(print_lines, no_copy, 0u);
BENCHMARK_CAPTURE(print_lines, copied, 1u);
