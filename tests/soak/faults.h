/* What the soak found wrong, and the time base of the run. Any thread. */
#ifndef PELKIN_TESTS_SOAK_FAULTS_H
#define PELKIN_TESTS_SOAK_FAULTS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace soak
{

/* Seconds since the run began. */
double now_s();

/*
 * Tells of a fault. The first one also makes the daemon's latest log lines a file (SOAK_LOG of the
 * environment); of a flood only the first ones are printed, all are counted.
 */
void report_fault(const std::string &text);
size_t fault_count();

/* Keeps a line of the daemon's log, cut, among the latest ones. */
void keep_log_line(std::string_view line);

} // namespace soak
#endif
