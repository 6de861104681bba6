/* Waiting and randomness for tests: no sleep stands for an event, no run is without its seed. */
#ifndef PELKIN_TESTS_SUPPORT_WAIT_H
#define PELKIN_TESTS_SUPPORT_WAIT_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace support
{

/* Seconds after which a wait has failed: generous, since a sanitizer build on a busy machine is
 * slow. */
constexpr int DEADLINE_S = 30;

/* Polls `condition` until it holds (true) or the deadline has passed (false). */
bool wait_until(const std::function<bool()> &condition, int seconds = DEADLINE_S);

/* The seed of this run: PELKIN_TEST_SEED of the environment, else a fresh one. Printed once. */
uint32_t seed();

bool contains(std::string_view text, std::string_view part);

/* A whole file, or "" when it cannot be read. */
std::string read_file(const std::string &path);

/* Makes or replaces a file. */
void write_file(const std::string &path, const std::string &content);

} // namespace support
#endif
