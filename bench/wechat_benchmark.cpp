// What WeChat requests cost the main thread, and answers the follow-check thread. Every statement
// makes its filter-log copy, as in the daemon, but no line is printed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <time.h>
#include <vector>

#include "log/log.h"
#include "wechat/batch_query.h"
#include "wechat/registry.h"

static const uint32_t NOTHING_PRINTED = 0;
static const size_t LARGER_THAN_ANY_CACHE = 64u << 20;

// Of this thread, in nanoseconds: what others on the machine do meanwhile does not count.
static int64_t processor_time()
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// Returns the nanoseconds that the registration took.
static int64_t register_client(int account, int32_t delay)
{
    struct {
        struct ipc_msg_hdr header;
        struct wechat_check_follow_req request;
    } message = {};
    message.header.len = sizeof message.request;
    // Ids share their beginning, which is the worst case for the lookup.
    (void)snprintf(message.request.appid, sizeof message.request.appid, "wx%0120d", account);
    (void)snprintf(message.request.openid, sizeof message.request.openid, "o%027d", delay);
    message.request.delay = delay;
    const int64_t start = processor_time();
    (void)wechat_req_msg_proc(&message, nullptr, 0);
    return processor_time() - start;
}

static void start_empty()
{
    tu_pelkin_fltlog = 1;
    tu_trace_level = NOTHING_PRINTED;
    while (wechat_account_chain != nullptr) {
        TO_CHECK_ACCOUNT *account = wechat_account_chain;
        wechat_account_chain = account->next;
        wechat_free_clients(account->clients);
        free(account);
    }
}

// The longest of 1000 registrations is what a probe may have to wait for. With cold caches, as
// after a busy stretch of the main loop: a registration finds nothing that it needs.
static void register_beside_waiting_clients(benchmark::State &state)
{
    const int32_t waiting = (int32_t)state.range(0);
    const bool is_cold = state.range(1) != 0;
    start_empty();
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same chain every time
    for (int32_t i = 0; i < waiting; i++) {
        (void)register_client(0, 1 + (int32_t)(random() % (uint32_t)waiting));
    }
    std::vector<char> evicting(LARGER_THAN_ANY_CACHE);
    int64_t longest_ns = 0;
    for (auto _ : state) {
        if (is_cold) {
            memset(evicting.data(), (int)random(), evicting.size());
            benchmark::DoNotOptimize(evicting.data());
        }
        const int64_t ns = register_client(0, 1 + (int32_t)(random() % (uint32_t)waiting));
        longest_ns = std::max(longest_ns, ns);
        state.SetIterationTime((double)ns * 1e-9);
    }
    state.counters["longest_us"] = (double)longest_ns * 1e-3;
}
BENCHMARK(register_beside_waiting_clients)
    ->ArgNames({"waiting", "cold"})
    ->ArgsProduct({{100, 10000, 100000}, {0, 1}})
    ->UseManualTime()
    ->Iterations(1000)
    ->Unit(benchmark::kMicrosecond);

// A client of an account that is there, and one of a new account, which comes to stand ahead of the
// others.
static void register_beside_accounts(benchmark::State &state)
{
    const int32_t accounts = (int32_t)state.range(0);
    const bool is_new = state.range(1) != 0;
    start_empty();
    for (int32_t i = 0; i < accounts; i++) {
        (void)register_client(i, 60);
    }
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same accounts every time
    int64_t longest_ns = 0;
    int32_t next = accounts;
    for (auto _ : state) {
        const int account = is_new ? next++ : (int)(random() % (uint32_t)accounts);
        const int64_t ns = register_client(account, 60);
        longest_ns = std::max(longest_ns, ns);
        state.SetIterationTime((double)ns * 1e-9);
    }
    state.counters["longest_us"] = (double)longest_ns * 1e-3;
}
BENCHMARK(register_beside_accounts)
    ->ArgNames({"accounts", "new"})
    ->ArgsProduct({{10, 1000, 100000}, {0, 1}})
    ->UseManualTime()
    ->Iterations(1000)
    ->Unit(benchmark::kMicrosecond);

static void register_20000_over_200_accounts(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        start_empty();
        state.ResumeTiming();
        for (int i = 0; i < 20000; i++) {
            (void)register_client(i % 200, 1 + i % 60);
        }
    }
}
BENCHMARK(register_20000_over_200_accounts)->Unit(benchmark::kMillisecond);

// The mutex is held for as long as it takes to detach, not to free.
static void detach_and_free_due_clients(benchmark::State &state)
{
    int64_t longest_ns = 0;
    for (auto _ : state) {
        state.PauseTiming();
        start_empty();
        for (int32_t i = 0; i < state.range(0); i++) {
            (void)register_client(0, i % 60);
        }
        state.ResumeTiming();
        const int64_t start = processor_time();
        TO_CHECK_CLIENT *due = wechat_detach_due_clients(wechat_account_chain, INT32_MAX);
        longest_ns = std::max(longest_ns, processor_time() - start);
        wechat_free_clients(due);
    }
    state.counters["longest_detach_us"] = (double)longest_ns * 1e-3;
}
BENCHMARK(detach_and_free_due_clients)->Arg(10000)->Unit(benchmark::kMillisecond);

// A batch of 100 clients, every entry as long as the API makes it at most, none subscribed.
static void evaluate_batch_answer(benchmark::State &state)
{
    start_empty();
    std::string answer = "{\"user_info_list\":[";
    for (int32_t i = 0; i < WECHAT_BATCH_CLIENTS_MAX; i++) {
        char head[64];
        (void)register_client(0, i);
        (void)snprintf(head, sizeof head, "{\"subscribe\":1,\"openid\":\"o%027d\",\"x\":\"", i);
        answer.append(head).append(2500, 'x').append("\"},");
    }
    for (auto _ : state) {
        std::string copy = answer;
        benchmark::DoNotOptimize(
            wechat_evaluate_batch_answer(copy.data(), wechat_account_chain->clients));
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)answer.size());
}
BENCHMARK(evaluate_batch_answer)->Unit(benchmark::kMicrosecond);
