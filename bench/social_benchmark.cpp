// What a batch costs its worker in processor time. Every statement makes its filter-log copy, as in
// the daemon, but no line is printed, and nobody is there to receive the report.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <string>

#include "log/log.h"
#include "social/reauth_answer.h"
#include "social/reauth_request.h"

static const uint32_t NOTHING_PRINTED = 0;

static struct reauth_attr batch;
static char body[PELKIN_MSG_MAX];

// Tokens of one issuer share their beginning, which is the worst case for the lookup.
static void write_token(char token[REAUTH_TOKEN_SIZE], const char *kind, int number)
{
    (void)snprintf(token, REAUTH_TOKEN_SIZE, "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9.%s%016d", kind,
                   number);
}

static void fill_batch(int stations)
{
    tu_pelkin_fltlog = 1;
    tu_trace_level = NOTHING_PRINTED;
    batch = {};
    batch.sta_num = stations;
    (void)snprintf(batch.secret, sizeof batch.secret, "%0128d", 0);
    for (int i = 0; i < stations; i++) {
        write_token(batch.sta[i].token, "sta", i);
        batch.sta[i].incoming = UINT32_MAX;
        batch.sta[i].outgoing = UINT32_MAX;
    }
}

// The answer to `stations` tokens, the last one first.
static std::string make_answer(const char *kind, int stations)
{
    std::string answer = "{\"tokens\":{";
    for (int i = stations - 1; i >= 0; i--) {
        char token[REAUTH_TOKEN_SIZE];
        write_token(token, kind, i);
        answer += std::string("\"") + token + "\":{\"valid\":" + (i % 2 != 0 ? "true" : "false") +
                  "}" + (i > 0 ? "," : "");
    }
    return answer + "}}";
}

static void build_body(benchmark::State &state)
{
    fill_batch((int)state.range(0));
    for (auto _ : state) {
        (void)pelkin_build_reauth_data(body, sizeof body, &batch);
        benchmark::DoNotOptimize(body);
    }
}
BENCHMARK(build_body)->Arg(1)->Arg(100)->Arg(REAUTH_STA_MAX)->Unit(benchmark::kMicrosecond);

static void check_answer(benchmark::State &state, const char *kind)
{
    fill_batch((int)state.range(0));
    const std::string answer = make_answer(kind, (int)state.range(0));
    for (auto _ : state) {
        (void)pelkin_check_reauth_resp(&batch, answer.c_str(), (int32_t)answer.size());
    }
    state.counters["answer_bytes"] = (double)answer.size();
}
BENCHMARK_CAPTURE(check_answer, known_tokens, "sta")
    ->Arg(1)
    ->Arg(100)
    ->Arg(REAUTH_STA_MAX)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(check_answer, unknown_tokens, "new")
    ->Arg(REAUTH_STA_MAX)
    ->Unit(benchmark::kMicrosecond);
