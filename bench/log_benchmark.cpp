// What a log statement costs where it costs most: in the places that every request passes.
#include <benchmark/benchmark.h>

#include "log/log.h"

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
