/* The receiving ends of the log channel: the log service and the system log. */
#ifndef PELKIN_TESTS_SUPPORT_LOG_SINK_H
#define PELKIN_TESTS_SUPPORT_LOG_SINK_H

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "log/smart_tty.h"
#include "tests/support/wait.h"

namespace support
{

/*
 * A bound datagram socket whose thread hands every datagram it receives to `take` and keeps none.
 * It lives as long as the object; its file is replaced at the start and removed at the end.
 */
struct DatagramReader {
    using Take = std::function<void(std::string_view)>;
    DatagramReader(const std::string &path, Take take);
    ~DatagramReader();
    DatagramReader(const DatagramReader &) = delete;

    std::string bound_path;
    int fd = -1;
    std::thread thread;
};

/* As above, keeping them all. */
struct DatagramSink {
    explicit DatagramSink(const std::string &path);
    DatagramSink(const DatagramSink &) = delete;

    std::vector<std::string> all();
    void clear();
    /* Datagrams that hold `text`. */
    size_t count(const std::string &text);
    /* Waits for at least `times` such datagrams. */
    bool wait_for(const std::string &text, size_t times = 1, int seconds = DEADLINE_S);

    std::mutex guard; // of `received`
    std::vector<std::string> received;
    DatagramReader reader; // last: its thread uses the others
};

/*
 * The log service. A daemon registers at its start, so make the sink before the daemon. The channel
 * never waits: a burst of some hundred records may lose some here. Where every one counts, take the
 * system log.
 */
struct LogSink : DatagramSink {
    LogSink() : DatagramSink(SMART_TTY_SERVICE_PATH)
    {
    }
};

/* The system log: the same texts behind syslog's own head. Its sender waits, so none is lost. */
struct SyslogSink : DatagramSink {
    SyslogSink() : DatagramSink("/dev/log")
    {
    }
};

} // namespace support
#endif
