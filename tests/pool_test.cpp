// The task pipe, the workers' registry and the delivery to files.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "http/connection.h"
#include "platform/pipe_capacity.h"
#include "pool/answer_file.h"
#include "pool/minute_clock.h"
#include "pool/task_pipe.h"
#include "pool/task_slots.h"
#include "pool/worker_registry.h"
#include "tests/support/daemon.h"
#include "tests/support/server.h"

using namespace support;

// Linked in place of the C library's (-Wl,--wrap): when armed, a write is taken in part only, and
// the next one meets a lack of memory.
static enum { WRITE_WHOLE, WRITE_A_PART, FIND_NO_MEMORY } next_write;
// Whether the system lets pipes grow.
static bool may_enlarge = true;

extern "C" {

ssize_t __real_write(int fd, const void *bytes, size_t size);

ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    if (next_write == FIND_NO_MEMORY) {
        next_write = WRITE_WHOLE;
        errno = ENOMEM;
        return -1;
    }
    if (next_write == WRITE_A_PART) {
        next_write = FIND_NO_MEMORY;
        size = 4096;
    }
    return __real_write(fd, bytes, size);
}

int32_t __real_pipe_enlarge(int32_t fd, int32_t capacity);

int32_t __wrap_pipe_enlarge(int32_t fd, int32_t capacity)
{
    errno = EPERM;
    return may_enlarge ? __real_pipe_enlarge(fd, capacity) : -1;
}

} // extern "C"

namespace
{

struct TaskPipe : testing::Test {
    void open_pipe(int capacity)
    {
        close_pipe();
        ASSERT_EQ(pelkin_open_task_pipe(ends), 0);
        ASSERT_GE(fcntl(ends[1], F_SETPIPE_SZ, capacity), capacity);
    }
    void close_pipe()
    {
        for (int32_t &end : ends) {
            if (end >= 0) {
                (void)close(end);
            }
            end = -1;
        }
    }
    ~TaskPipe() override
    {
        may_enlarge = true;
        close_pipe();
    }
    // A task whose every byte follows from `number`, so that a shifted stream shows.
    void fill(struct http_task *task, uint32_t number, int32_t data_length) const
    {
        static const std::vector<uint8_t> noise = [] {
            std::vector<uint8_t> bytes(2 * sizeof(struct http_task));
            std::mt19937 random(seed());
            std::generate(bytes.begin(), bytes.end(), [&] { return (uint8_t)random(); });
            return bytes;
        }();
        const uint8_t *from = noise.data() + number * 7919u % sizeof(struct http_task);
        std::memcpy((void *)task, from, HTTP_TASK_FIXED_SIZE + (size_t)data_length);
        task->msg_id = number;
        task->dataLen = data_length;
    }
    // The oldest accepted task must come out whole and equal.
    void read_oldest()
    {
        const auto [number, data_length] = accepted.front();
        accepted.pop_front();
        fill(expected.get(), number, data_length);
        ASSERT_GT(pelkin_rcv_task(ends[0], got.get()), 0);
        const size_t length = HTTP_TASK_FIXED_SIZE + (size_t)data_length;
        ASSERT_EQ(std::memcmp(got.get(), expected.get(), length), 0) << "task " << number;
    }
    int32_t ends[2] = {-1, -1};
    std::deque<std::pair<uint32_t, int32_t>> accepted;
    std::unique_ptr<struct http_task> sent{new struct http_task}, got{new struct http_task},
        expected{new struct http_task};
};

} // namespace

TEST_F(TaskPipe, EveryAcceptedTaskComesOutWholeAndARefusedOneNotAtAll)
{
    std::mt19937 random(seed());
    for (const int capacity : {4096, 65536, 1 << 20, TASK_PIPE_CAPACITY_MAX}) {
        open_pipe(capacity == TASK_PIPE_CAPACITY_MAX ? 4096 : capacity);
        may_enlarge = capacity == TASK_PIPE_CAPACITY_MAX;
        const bool has_ledger = random() % 2 == 0;
        struct task_ledger ledger = {};
        int refused = 0;
        int carried = 0;
        for (uint32_t number = 1; number <= 4000; number++) {
            // Sizes around page ends and the atomic limit as often as any others.
            const int32_t wild = (int32_t)(random() % (HTTP_TASK_DATA_MAX + 1));
            const int32_t near_page = std::clamp(
                (int32_t)(4096 * (1 + random() % 15) - HTTP_TASK_FIXED_SIZE + random() % 5) - 2, 0,
                HTTP_TASK_DATA_MAX);
            const int32_t small = (int32_t)(random() % 3000);
            const int32_t choices[] = {wild, near_page, small, 0, HTTP_TASK_DATA_MAX};
            const int32_t data_length = choices[random() % std::size(choices)];
            fill(sent.get(), number, data_length);
            const int32_t error =
                pelkin_send_task_noted(ends[1], sent.get(), has_ledger ? &ledger : nullptr);
            if (error == 0) {
                accepted.emplace_back(number, data_length);
                carried++;
            } else {
                ASSERT_EQ(error, EAGAIN);
                refused++;
            }
            // Now and then the reader takes some, or all; never when the pipe just has room.
            size_t take = error == 0 && random() % 8 != 0 ? 0 : random() % 4;
            take = random() % 50 == 0 ? accepted.size() : take;
            for (; take > 0 && !accepted.empty(); take--) {
                ASSERT_NO_FATAL_FAILURE(read_oldest());
            }
        }
        while (!accepted.empty()) {
            ASSERT_NO_FATAL_FAILURE(read_oldest());
        }
        char byte = 0;
        (void)fcntl(ends[0], F_SETFL, O_NONBLOCK);
        EXPECT_EQ(read(ends[0], &byte, 1), -1) << "bytes of a refused task were left in the pipe";
        EXPECT_GT(refused, may_enlarge ? 0 : 100) << capacity;
        EXPECT_GT(carried, 100) << capacity;
    }
}

TEST_F(TaskPipe, HundredTasksOfAnySizeFitWhereTheSystemGrantsTheRoomAndTheLargestAloneAlways)
{
    open_pipe(4096);
    const bool is_granted = pipe_enlarge(ends[1], TASK_PIPE_CAPACITY_MAX) == 0;
    for (const int32_t data_length : {2600, 8192, HTTP_TASK_DATA_MAX}) {
        open_pipe(4096);
        struct task_ledger ledger = {};
        for (uint32_t number = 1; number <= 101; number++) {
            fill(sent.get(), number, data_length);
            if (pelkin_send_task_noted(ends[1], sent.get(), &ledger) != 0) {
                ASSERT_FALSE(is_granted) << number;
                ASSERT_EQ(data_length, HTTP_TASK_DATA_MAX) << number << ": a megabyte is for all";
                break;
            }
            accepted.emplace_back(number, data_length);
        }
        while (!accepted.empty()) {
            ASSERT_NO_FATAL_FAILURE(read_oldest());
        }
    }
    open_pipe(65536);
    may_enlarge = false;
    for (uint32_t round = 0; round < 20; round++) {
        fill(sent.get(), round, HTTP_TASK_DATA_MAX);
        ASSERT_EQ(pelkin_send_task(ends[1], sent.get()), 0) << "an empty 64 KiB pipe must take it";
        accepted.emplace_back(round, HTTP_TASK_DATA_MAX);
        ASSERT_NO_FATAL_FAILURE(read_oldest());
    }
}

TEST_F(TaskPipe, BrokenStreamsEndTheReader)
{
    static const struct {
        int32_t data_length; // as written into the record
        size_t written;      // bytes that reach the pipe
        int32_t result;
    } cases[] = {
        {-1, 1430, -1},   {61441, 1430, -1}, {INT32_MIN, 1430, -1}, {0, 0, 0},
        {0, 700, 0},      {100, 1430, 0},    {100, 1430 + 99, 0},   {0, 1430, 1430},
        {100, 1530, 100}, {5, 1430 + 8, 5},
    };
    for (const auto &one : cases) {
        open_pipe(65536);
        fill(sent.get(), 1, std::clamp(one.data_length, 0, 200));
        sent->dataLen = one.data_length;
        ASSERT_EQ(write(ends[1], sent.get(), one.written), (ssize_t)one.written);
        (void)close(ends[1]);
        ends[1] = -1;
        EXPECT_EQ(pelkin_rcv_task(ends[0], got.get()), one.result)
            << one.data_length << " " << one.written;
    }
}

TEST_F(TaskPipe, EndedReaderIsReportedAndNotDeadly)
{
    (void)signal(SIGPIPE, SIG_IGN);
    for (const bool full : {false, true}) {
        open_pipe(65536);
        fill(sent.get(), 1, HTTP_TASK_DATA_MAX);
        EXPECT_EQ(full ? pelkin_send_task(ends[1], sent.get()) : 0, 0);
        (void)close(ends[0]);
        ends[0] = -1;
        for (const int32_t data_length : {HTTP_TASK_DATA_MAX, 0}) {
            fill(sent.get(), 1, data_length);
            EXPECT_EQ(pelkin_send_task(ends[1], sent.get()), EPIPE) << full;
        }
    }
}

TEST_F(TaskPipe, HalfATaskEndsTheStream)
{
    open_pipe(65536);
    fill(sent.get(), 1, 20000);
    next_write = WRITE_A_PART;
    EXPECT_EQ(pelkin_send_task(ends[1], sent.get()), EPIPE);
    (void)close(ends[1]); // as the deletion of the worker's record does
    ends[1] = -1;
    EXPECT_EQ(pelkin_rcv_task(ends[0], got.get()), 0);
}

namespace
{

// Workers that stay in the handshake with a server that accepts and says nothing.
struct Registry : testing::Test {
    Registry()
    {
        (void)signal(SIGPIPE, SIG_IGN);
        pelkin_ctx = pelkin_create_ctx();
    }
    ~Registry() override
    {
        if (pelkin_thread_list != nullptr) {
            (void)pelkin_release_all_threads(&pelkin_thread_list);
        }
        silent.stop();
        EXPECT_TRUE(wait_until([&] { return count_threads(getpid()) <= threads_before; }))
            << "workers outlive their pipes";
        EXPECT_EQ(count_semaphore_sets(), 0u);
        SSL_CTX_free(pelkin_ctx);
    }
    // The thread sanitizer starts a thread of its own along with the first one.
    const size_t threads_before = (std::thread([] {}).join(), count_threads(getpid()));
    // Port 443 without TLS: the client's hello is read and never answered.
    Server silent{{.address = "127.0.0.1", .port = 443}, [](Connection &connection) {
                      while (!connection.wait_for_close()) {
                      }
                  }};
};

} // namespace

TEST_F(Registry, FirstWorkerWithAFreeSlotWinsAndKeysAreExact)
{
    THREAD_RECORD *first = pelkin_create_a_thread(1, "127.0.0.1");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(pelkin_find_a_thread(0, "127.0.0.1"), nullptr);
    EXPECT_EQ(pelkin_find_a_thread(1, "127.0.0.10"), nullptr);
    EXPECT_EQ(pelkin_find_a_thread(1, "127.0.0."), nullptr);
    for (int i = 0; i < PELKIN_TASK_SLOTS; i++) {
        ASSERT_EQ(pelkin_find_a_thread(1, "127.0.0.1"), first);
    }
    EXPECT_EQ(pelkin_find_a_thread(1, "127.0.0.1"), nullptr) << "101 tasks on 100 slots";
    THREAD_RECORD *second = pelkin_create_a_thread(1, "127.0.0.1");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(pelkin_find_a_thread(1, "127.0.0.1"), second);
    pelkin_return_task_slot(first->sem_id);
    EXPECT_EQ(pelkin_find_a_thread(1, "127.0.0.1"), first) << "the oldest goes first again";
    EXPECT_EQ(count_semaphore_sets(), 2u);
}

TEST_F(Registry, IdleReleaseKeepsTenMinutesAndMendsTheList)
{
    const int32_t minute = pelkin_cur_minute();
    std::vector<THREAD_RECORD *> records;
    for (int i = 0; i < 6; i++) {
        records.push_back(pelkin_create_a_thread(1, "127.0.0.1"));
        ASSERT_NE(records.back(), nullptr);
    }
    // First, middle, last and two neighbours are over-age; one is at the limit.
    const int32_t ages[] = {11, 10, 11, 11, 0, 1000};
    for (size_t i = 0; i < records.size(); i++) {
        records[i]->last_used_time = minute - ages[i];
    }
    pelkin_release_idle_threads(&pelkin_thread_list);
    if (pelkin_cur_minute() == minute) { // else the one at the limit may have gone, rightly
        ASSERT_EQ(pelkin_thread_list, records[1]);
        EXPECT_EQ(pelkin_thread_list->prev, nullptr);
        EXPECT_EQ(pelkin_thread_list->next, records[4]);
        EXPECT_EQ(records[4]->prev, records[1]);
        EXPECT_EQ(records[4]->next, nullptr);
        EXPECT_EQ(count_semaphore_sets(), 2u);
    }
    THREAD_RECORD *appended = pelkin_create_a_thread(1, "127.0.0.1");
    EXPECT_EQ(records[4]->next, appended);
}

TEST_F(Registry, EverythingGoesOnFailureAndAtTheEnd)
{
    EXPECT_EQ(pelkin_release_all_threads(&pelkin_thread_list), -1);
    EXPECT_EQ(pelkin_release_all_threads(nullptr), -1);
    pelkin_release_idle_threads(nullptr);
    EXPECT_EQ(pelkin_free_thread_record(nullptr), 0);
    for (int i = 0; i < 3; i++) {
        ASSERT_NE(pelkin_create_a_thread(1, "127.0.0.1"), nullptr);
    }
    EXPECT_EQ(pelkin_release_all_threads(&pelkin_thread_list), 0);
    EXPECT_EQ(pelkin_thread_list, nullptr);
    EXPECT_EQ(count_semaphore_sets(), 0u);

    // The workers just released are still in their handshakes: their descriptors count, unchanged.
    ASSERT_TRUE(wait_until([&] { return silent.connections == 3; }));
    // No more descriptors: creation fails without leaving a thing.
    const size_t before = count_descriptors(getpid());
    std::vector<int> taken;
    for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
        taken.push_back(fd);
    }
    EXPECT_EQ(pelkin_create_a_thread(1, "127.0.0.1"), nullptr);
    for (const int fd : taken) {
        (void)close(fd);
    }
    EXPECT_EQ(pelkin_thread_list, nullptr);
    EXPECT_EQ(count_semaphore_sets(), 0u);
    EXPECT_EQ(count_descriptors(getpid()), before);
}

TEST(MinuteClock, FollowsTheMonotonicClock)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LE(std::abs(pelkin_cur_minute() - (int32_t)(now.tv_sec / 60)), 1);
}

TEST(AnswerFile, WorkersThatNeedTheSameNewDirectoryAllWrite)
{
    constexpr int DIRECTORIES = 300;
    std::atomic<int> arrived = 0;
    std::atomic<int> failed = 0;
    const auto write_all = [&](const char *name) {
        for (int i = 0; i < DIRECTORIES; i++) {
            const int turn = 2 * (i + 1);
            for (arrived++; arrived < turn;) { // both set out at once
            }
            const std::string path = "/tmp/shared-" + std::to_string(i) + "/" + name;
            failed += pelkin_send_to_file(path.c_str(), "x", 1) != 0 ? 1 : 0;
        }
    };
    std::thread other(write_all, "other");
    write_all("one");
    other.join();
    EXPECT_EQ(failed, 0);
}

TEST(AnswerFile, DirectoryModeAndOldBytes)
{
    (void)umask(022);
    EXPECT_EQ(pelkin_send_to_file("/tmp/made/answer", "0123456789", 10), 0);
    struct stat status;
    ASSERT_EQ(stat("/tmp/made", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    ASSERT_EQ(stat("/tmp/made/answer", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0005u); // 0007 under the mask
    EXPECT_EQ(pelkin_send_to_file("/tmp/made/answer", "abc", 3), 0);
    EXPECT_EQ(read_file("/tmp/made/answer"), "abc3456789") << "not truncated";

    EXPECT_EQ(pelkin_send_to_file("/tmp/no/two/levels", "x", 1), -1);
    EXPECT_NE(access("/tmp/no", F_OK), 0);
    EXPECT_EQ(pelkin_send_to_file("", "x", 1), -1);
    EXPECT_EQ(pelkin_send_to_file("/tmp/made", "x", 1), -1) << "a directory";
    EXPECT_EQ(pelkin_send_to_file("/dev/full", "x", 1), -1) << "no room";
    ASSERT_EQ(mkfifo("/tmp/made/pipe", 0600), 0);
    EXPECT_EQ(pelkin_send_to_file("/tmp/made/pipe", "x", 1), -1) << "nobody reads it";
    EXPECT_EQ(pelkin_send_to_file("/tmp/made/answer/below", "x", 1), -1);
    (void)mkdir("/tmp/small", 0755);
    ASSERT_EQ(mount("none", "/tmp/small", "tmpfs", 0, "size=8k"), 0);
    EXPECT_EQ(pelkin_send_to_file("/tmp/small/answer", std::string(20000, 'x').data(), 20000), -1)
        << "room for a part of it";
    EXPECT_EQ(chdir("/tmp"), 0);
    EXPECT_EQ(pelkin_send_to_file("plain-name", "x", 1), 0);
    EXPECT_EQ(read_file("/tmp/plain-name"), "x");
}
