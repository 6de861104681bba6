// Core-dump set-up against stand-ins of the kernel's files. The whole of /proc is replaced, in the
// sandbox's own mount namespace, so that the machine's settings are out of reach.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "crash/core_setup.h"
#include "tests/support/wait.h"

using support::read_file;
using support::write_file;

static const std::string STAND_IN = "/tmp/core_proc";
static const char *const UNTOUCHED =
    "untouched by any set-up, and longer than every setting there is";
static const rlim_t OLD_LIMIT = 4096;

struct Settings {
    std::string pattern;
    std::string uses_pid;
    rlim_t limit; // the soft one
    bool operator==(const Settings &) const = default;
};

// Names what differs in a failed comparison.
void PrintTo(const Settings &settings, std::ostream *out)
{
    *out << settings.pattern << "|" << settings.uses_pid << "|" << settings.limit;
}

static const Settings NOTHING = {UNTOUCHED, UNTOUCHED, OLD_LIMIT};

// A written text stands over the beginning of the untouched one: the files are not cut first.
static Settings applied(const std::string &pattern)
{
    const std::string old = UNTOUCHED;
    return {.pattern = pattern + old.substr(pattern.size()),
            .uses_pid = "0" + old.substr(1),
            .limit = RLIM_INFINITY};
}

static const Settings DEVICE_STORAGE = applied("/etc/quorvane/dump/%e.core");
static const Settings MEMORY = applied("/tmp/dump/%e.core");
static const Settings PIPED = applied("|/bin/kelm_run.sh fenwold-compress-coredump %e");

class CoreSetup : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::filesystem::remove_all(STAND_IN);
        std::filesystem::create_directories(STAND_IN + "/sys/kernel");
        std::filesystem::create_directories(STAND_IN + "/zel_hw_info");
        ASSERT_EQ(mount(STAND_IN.c_str(), "/proc", nullptr, MS_BIND, nullptr), 0);
        struct stat ours = {};
        struct stat theirs = {};
        ASSERT_EQ(stat(STAND_IN.c_str(), &ours), 0);
        ASSERT_EQ(stat("/proc", &theirs), 0);
        ASSERT_TRUE(ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino);
        mounted = true;
        std::filesystem::remove(CORE_ENVIRONMENT_FILE);
    }

    void TearDown() override
    {
        if (mounted) {
            EXPECT_EQ(umount2("/proc", MNT_DETACH), 0);
        }
    }

    // What a start of daemon `name` leaves; null `platform` leaves PLATFORM unset.
    Settings set_up(const char *name, const char *platform)
    {
        if (!mounted) {
            return {};
        }
        write_file(CORE_PATTERN_FILE, UNTOUCHED);
        write_file(CORE_USES_PID_FILE, UNTOUCHED);
        const pid_t child = fork();
        if (child == 0) {
            // Not the hard one: a privilege that not every root has would be needed to raise it
            // again.
            rlimit limits = {};
            (void)getrlimit(RLIMIT_CORE, &limits);
            limits.rlim_cur = OLD_LIMIT;
            (void)setrlimit(RLIMIT_CORE, &limits);
            // NOLINTNEXTLINE(concurrency-mt-unsafe)
            (void)(platform == nullptr ? unsetenv("PLATFORM") : setenv("PLATFORM", platform, 1));
            core_dump_setup(name);
            (void)getrlimit(RLIMIT_CORE, &limits);
            write_file("/tmp/core_limit", std::to_string(limits.rlim_cur));
            _exit(0);
        }
        (void)waitpid(child, nullptr, 0);
        const rlim_t limit = std::strtoull(read_file("/tmp/core_limit").c_str(), nullptr, 10);
        return {read_file(CORE_PATTERN_FILE), read_file(CORE_USES_PID_FILE), limit};
    }

    bool mounted = false;
};

TEST_F(CoreSetup, OnlyDaemonsOfTheDeviceArePrepared)
{
    for (const char *name : {"pelkin", "pelkin-debug", "/usr/sbin/pelkin", "trundel", "kivren",
                             "lorix", "vesk", "mavrid", "dobbert2"}) {
        EXPECT_EQ(set_up(name, "qx4410"), DEVICE_STORAGE) << name;
    }
    for (const char *name : {"pel", "", "Pelkin", "/pelkin/other", "xpelkin"}) {
        EXPECT_EQ(set_up(name, "qx4410"), NOTHING) << name;
    }
    EXPECT_EQ(set_up(nullptr, "qx4410"), NOTHING);
}

TEST_F(CoreSetup, PlatformPicksTheRow)
{
    const struct {
        const char *platform;
        const char *hardware; // null: no such file
        Settings expected;
    } cases[] = {
        {"qx4410", nullptr, DEVICE_STORAGE},
        {"fenwold-standard", nullptr, PIPED},
        {"brin900", nullptr, DEVICE_STORAGE},
        {"brin900", "K0900XX", DEVICE_STORAGE},
        {"brin900", "K0900L", DEVICE_STORAGE},
        {"brin900", "K0900LT", MEMORY},
        {"brin900", "k0900lt-rev2\n", MEMORY},
        {"BRIN900", "K0900LT", MEMORY},
        {"BRIN900", nullptr, NOTHING},
        {"brin900lt", nullptr, MEMORY},
        {"qx4410", "K0900LT", DEVICE_STORAGE},
        {"QX4410", nullptr, NOTHING},
        {"qx44100", nullptr, NOTHING},
        {"unknown", nullptr, NOTHING},
        {"", nullptr, NOTHING},
        {nullptr, "K0900LT", NOTHING},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(std::string(one.platform == nullptr ? "(unset)" : one.platform) + " " +
                     (one.hardware == nullptr ? "(none)" : one.hardware));
        std::filesystem::remove(CORE_HARDWARE_FILE);
        if (one.hardware != nullptr) {
            write_file(CORE_HARDWARE_FILE, one.hardware);
        }
        EXPECT_EQ(set_up("pelkin", one.platform), one.expected);
    }
}

TEST_F(CoreSetup, EnvironmentFileGivesThePlatformWhenTheVariableDoesNot)
{
    const std::string letters31 = "PLATFORM" + std::string(23, 'X');
    const std::string found = "PLATFORM=qx4410\n";
    const struct {
        std::string content;
        Settings expected;
    } cases[] = {
        {"A=1\nB=2\nPLATFORM=qx4410\n", DEVICE_STORAGE},
        {"PLATFORM=qx4410", DEVICE_STORAGE}, // no line break at the end
        {"PLATFORM=qx4410 # more\n", DEVICE_STORAGE},
        {"PLATFORMS=qx4410\n", DEVICE_STORAGE},
        {"PLATFORM=brin900lt\n" + found, MEMORY}, // the first one counts
        {"PLATFORM=unknown\n" + found, NOTHING},
        {"platform=qx4410\nXPLATFORM=qx4410\nPLATFORM qx4410\nPLATFORM1=qx4410\n", NOTHING},
        {"=qx4410\n\n=\nPLATFORM=\n", NOTHING},
        {letters31 + "=qx4410\n", DEVICE_STORAGE},
        {letters31 + "X=unknown\n" + found, DEVICE_STORAGE}, // key too long: skipped
        {"PLATFORM=" + std::string(127, 'v') + "\n" + found, NOTHING},
        {"PLATFORM=" + std::string(128, 'v') + "\n" + found, DEVICE_STORAGE}, // skipped
        {std::string(255, '#') + found + found, DEVICE_STORAGE}, // a long line is one line
        {std::string(255, '#') + found, NOTHING},
        {std::string("\0PLATFORM=qx4410\n", 17) + found, DEVICE_STORAGE},
        {"", NOTHING},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.content);
        write_file(CORE_ENVIRONMENT_FILE, one.content);
        EXPECT_EQ(set_up("pelkin", nullptr), one.expected);
        EXPECT_EQ(set_up("pelkin", "fenwold-standard"), PIPED); // the variable comes first
    }
}

TEST_F(CoreSetup, BothLimitsAreSet)
{
    const pid_t child = fork();
    if (child == 0) {
        rlimit limits = {};
        const bool set = core_set_rlimit(1048576) == 0 && getrlimit(RLIMIT_CORE, &limits) == 0;
        _exit(set && limits.rlim_cur == 1048576 && limits.rlim_max == 1048576 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(CoreSetup, WriteThatIsNotWholeFails)
{
    write_file("/tmp/core_file", "0123456789");
    EXPECT_EQ(core_write_file("/tmp/core_file", "abc"), 0);
    EXPECT_EQ(read_file("/tmp/core_file"), "abc3456789");
    EXPECT_EQ(core_write_file("/dev/full", "abc"), -1);
    EXPECT_EQ(core_write_file("/tmp/core_missing", "abc"), -1);
    EXPECT_FALSE(std::filesystem::exists("/tmp/core_missing"));
    EXPECT_EQ(core_write_file(nullptr, "abc"), -1);
    EXPECT_EQ(core_write_file("/tmp/core_file", nullptr), -1);
}
