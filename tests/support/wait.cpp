#include "tests/support/wait.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

namespace support
{

bool wait_until(const std::function<bool()> &condition, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

uint32_t seed()
{
    static const uint32_t value = [] {
        const char *given = std::getenv("PELKIN_TEST_SEED");
        const uint32_t chosen =
            given != nullptr ? (uint32_t)std::strtoul(given, nullptr, 0) : std::random_device{}();
        std::printf("PELKIN_TEST_SEED=%u\n", chosen);
        return chosen;
    }();
    return value;
}

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

} // namespace support
