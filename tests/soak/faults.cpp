#include "tests/soak/faults.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <vector>

#include "tests/support/wait.h"

namespace soak
{

static const size_t LINES_KEPT = 20000;
static const size_t LINE_LONGEST = 240;
static const size_t FAULTS_PRINTED = 30;

static std::mutex guard; // of all below
static std::vector<std::string> latest_lines;
static size_t next_line;
static size_t faults;

double now_s()
{
    static const auto start = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void keep_log_line(std::string_view line)
{
    const std::lock_guard<std::mutex> lock(guard);
    latest_lines.resize(LINES_KEPT);
    latest_lines[next_line++ % LINES_KEPT].assign(line.substr(0, LINE_LONGEST));
}

// With the guard held.
static void write_latest_lines()
{
    const char *path = std::getenv("SOAK_LOG");
    if (path == nullptr || latest_lines.empty()) {
        return;
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (size_t i = 0; i < LINES_KEPT; i++) {
        const std::string &line = latest_lines[(next_line + i) % LINES_KEPT];
        if (!line.empty()) {
            file << line << (line.back() == '\n' ? "" : "\n");
        }
    }
    std::printf("  the daemon's latest log lines are in %s\n", path);
}

void report_fault(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(guard);
    faults++;
    if (faults <= FAULTS_PRINTED) {
        std::printf("FAULT at %.1f s (seed %u): %s\n", now_s(), support::seed(), text.c_str());
    }
    if (faults == 1) {
        write_latest_lines();
    }
    (void)std::fflush(stdout);
}

size_t fault_count()
{
    const std::lock_guard<std::mutex> lock(guard);
    return faults;
}

} // namespace soak
