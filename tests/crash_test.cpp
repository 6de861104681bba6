// Real faults in child processes (crash_helper.cpp), and what they leave behind; the dump's text
// for contexts that a fault does not bring about at will.
#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "crash/crashdump.h"
#include "crash/dump_report.h"
#include "crash/dump_rotation.h"
#include "crash/symbols.h"
#include "crash/wall_clock.h"
#include "tests/support/wait.h"

using support::read_file;
using support::wait_until;
using support::write_file;

static const std::string DIRECTORY = CRASHDUMP_DIRECTORY;
static const std::string DUMP = DIRECTORY + "/crashing.dump";
static const std::string SNAPSHOT = DUMP + ".unix_zel";

// An instrumented helper checks the handler; the heap of a plain one breaks as a real heap does.
#ifdef PELKIN_CRASH_INSTRUMENTED
static const std::vector<std::string> HELPERS = {"crash_helper_plain", "crash_helper"};
#else
static const std::vector<std::string> HELPERS = {"crash_helper_plain"};
#endif

struct Outcome {
    int status = -1; // exit status; 1000 + the signal that ended it
    std::string out;
    std::string error;
};

// The child takes the signals back that sanitizers would answer themselves.
static void become_helper(const std::vector<std::string> &arguments,
                          const std::vector<std::string> &environment)
{
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    for (const std::string &setting : environment) {
        (void)putenv(const_cast<char *>(setting.c_str())); // NOLINT(concurrency-mt-unsafe)
    }
    (void)dup2(open("/tmp/crash_out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    (void)dup2(open("/tmp/crash_error", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    (void)execv(argv[0], argv.data());
    _exit(126);
}

static Outcome crash(const std::string &mode, const std::vector<std::string> &environment = {},
                     const std::string &helper = "crash_helper_plain",
                     const std::string &name = "/usr/sbin/crashing")
{
    const char *build = std::getenv("PELKIN_BINARY_DIR"); // NOLINT(concurrency-mt-unsafe)
    const std::string path = std::string(build == nullptr ? "." : build) + "/tests/" + helper;
    std::vector<std::string> settings = environment;
    settings.push_back("ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0");
    settings.push_back("TSAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0");
    const pid_t child = fork();
    if (child == 0) {
        become_helper({path, mode, name}, settings);
    }
    int status = 0;
    const bool ended = wait_until([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, &status, 0);
    }
    EXPECT_TRUE(ended) << mode << " hangs";
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status),
            read_file("/tmp/crash_out"), read_file("/tmp/crash_error")};
}

static const char *const DUMP_FORM =
    "^# [a-z_]+, crashed at [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}, "
    "cnt=[0-9]+\n"
    "# Stack backtrace:\n"
    "(#  [123]: [0-9a-f]{8,16}( <[^ ]+\\+0x[0-9a-f]+>)?  \\([^)]+\\)\n){0,3}"
    "# End of stack backtrace\n"
    "# Stack \\((\\(nil\\)|0x[0-9a-f]+)\\):(\n#  0x[0-9a-f]+:| [0-9a-f]{8})*\n#\n"
    "# Crash Information:\n#   Signal # = [0-9]+\n#   Error #  = [0-9]+\n"
    "#   Cause code = -?[0-9]+ \\((Unknown|Addr map error|Access privilege error)\\)\n"
    "#   Attempt to access addr = (\\(nil\\)|0x[0-9a-f]+)\n"
    "# General Registers: \n"
    "(\n#  ( [0-9]{2}\\([A-Z0-9]{2}  \\)=0x[0-9a-f]{8,16}){4}){8}"
    "\n# \\(MDLO\\)=0x[0-9a-f]{8,16} \\(MDHI\\)=0x[0-9a-f]{8,16}\n"
    "# End of Crash dump\n";

// Whole dumps of that form, one right behind the other; -1 where something is out of place.
static int count_whole_dumps(const std::string &text)
{
    regex_t form;
    if (regcomp(&form, DUMP_FORM, REG_EXTENDED) != 0) {
        return -1;
    }
    int count = 0;
    size_t at = 0;
    regmatch_t match = {};
    while (at < text.size() && regexec(&form, text.c_str() + at, 1, &match, 0) == 0) {
        at += (size_t)match.rm_eo;
        count++;
    }
    regfree(&form);
    return at == text.size() ? count : -1;
}

class Crash : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/etc/quorvane");
        std::filesystem::create_directories("/etc/quorvane");
    }
};

struct Fault {
    const char *mode;
    const char *helper; // null: every one
    std::vector<std::string> shown;
};

static const std::vector<Fault> FAULTS = {
    {"null-write",
     nullptr,
     {"#  1: ", "<fault_null_write+0x", "Signal # = 11\n", "Cause code = 1 (Addr map error)",
      "access addr = (nil)\n"}},
    {"read-only-write",
     nullptr,
     {"#  1: ", "<fault_read_only_write+0x", "Signal # = 11\n",
      "Cause code = 2 (Access privilege error)"}},
    {"division", nullptr, {"<fault_division+0x", "Signal # = 8\n"}},
    {"truncated-mapping", nullptr, {"<fault_truncated_mapping+0x", "Signal # = 7\n"}},
    {"wild-jump",
     nullptr,
     {"backtrace:\n#  2: ", "<fault_wild_jump+0x", "Signal # = 11\n",
      "access addr = 0x10feed10\n"}},
    {"stack-pointer", nullptr, {"<fault_stack_pointer+0x", "# Stack (0x5afe10):\n#\n"}},
    {"full-stack", nullptr, {"<fault_full_stack+0x", "Signal # = 11\n"}},
    {"full-worker-stack", nullptr, {"<fault_full_stack+0x", "Signal # = 11\n"}},
    {"in-malloc", "crash_helper_plain", {"libc.so", "Signal # = 11\n"}},
    {"in-log-on-worker", nullptr, {"Signal # = 11\n"}},
    {"in-time-zone", nullptr, {"Signal # = 11\n"}},
    {"output-held", nullptr, {"<fault_null_write+0x"}},
    {"loader-held", nullptr, {"<fault_null_write+0x"}},
    {"no-descriptors", nullptr, {"<fault_null_write+0x"}},
    {"full-output", nullptr, {"<fault_null_write+0x"}},
    {"sigpipe", nullptr, {"Signal # = 13\n"}},
};

TEST_F(Crash, EveryFaultLeavesOneWholeDumpAndStatus255)
{
    for (const std::string &helper : HELPERS) {
        for (const Fault &fault : FAULTS) {
            SCOPED_TRACE(helper + " " + fault.mode);
            if (fault.helper != nullptr && fault.helper != helper) {
                continue;
            }
            SetUp();
            const Outcome outcome = crash(fault.mode, {}, helper);
            const std::string dump = read_file(DUMP);
            EXPECT_EQ(outcome.status, 255) << outcome.error;
            EXPECT_EQ(count_whole_dumps(dump), 1) << dump;
            EXPECT_EQ(dump.rfind("# crashing, crashed at ", 0), 0u) << dump;
            for (const std::string &part : fault.shown) {
                EXPECT_NE(dump.find(part), std::string::npos) << part << "\n" << dump;
            }
            EXPECT_NE(read_file(SNAPSHOT), "") << outcome.error;
        }
    }
}

TEST_F(Crash, StandardOutputNamesTheDumpFile)
{
    EXPECT_EQ(crash("null-write").out, "Creating dumpfile: " + DUMP + "\n");
}

TEST_F(Crash, ThreadsThatFaultTogetherNeverMixTheirDumps)
{
    for (const std::string &helper : HELPERS) {
        for (int round = 0; round < 20; round++) {
            SetUp();
            EXPECT_EQ(crash("two-threads", {}, helper).status, 255);
            const std::string dump = read_file(DUMP);
            const int whole = count_whole_dumps(dump);
            EXPECT_TRUE(whole == 1 || whole == 2) << dump;
        }
    }
}

TEST_F(Crash, FourthDumpHandsFurtherFaultsToTheKernel)
{
    EXPECT_EQ(crash("five-threads").status, 1000 + SIGSEGV);
    const std::string dump = read_file(DUMP);
    EXPECT_EQ(count_whole_dumps(dump), 4) << dump;
    size_t at = 0;
    for (const char *count : {", cnt=0\n", ", cnt=1\n", ", cnt=2\n", ", cnt=3\n"}) {
        at = dump.find(count, at);
        EXPECT_NE(at, std::string::npos) << count;
    }
}

TEST_F(Crash, CallbackRunsBetweenStoredDumpAndSnapshot)
{
    EXPECT_EQ(crash("callback").out,
              "crashing registers crashdump usrcb\nCreating dumpfile: " + DUMP + "\n");
    EXPECT_EQ(read_file("/tmp/crash_callback"), "dumps=1 syncs=2 snapshot=0");
}

TEST_F(Crash, HangingSnapshotIsKilledAndTheProcessEnds)
{
    std::filesystem::create_directories("/tmp/crash_bin");
    write_file("/tmp/crash_bin/date",
               "#!/bin/sh\necho $$ > /tmp/crash_date\nexec /bin/sleep 900\n");
    std::filesystem::permissions("/tmp/crash_bin/date", std::filesystem::perms::owner_all);
    EXPECT_EQ(crash("null-write", {"PATH=/tmp/crash_bin"}).status, 255);
    EXPECT_EQ(count_whole_dumps(read_file(DUMP)), 1);
    const pid_t hanging = (pid_t)std::stol(read_file("/tmp/crash_date"));
    EXPECT_TRUE(wait_until([&] { // ended: gone, or a zombie that nobody reaps here
        const std::string stat = read_file("/proc/" + std::to_string(hanging) + "/stat");
        return stat.empty() || stat.find(") Z ") != std::string::npos;
    }));
}

TEST_F(Crash, DumpFileThatCannotBeOpenedEndsWith37)
{
    const Outcome outcome = crash("no-dump-file");
    EXPECT_EQ(outcome.status, 37);
    EXPECT_EQ(outcome.error,
              "crash_helper_plain: Could not open dump file " + DUMP + " : Is a directory\n");
}

TEST_F(Crash, DirectoryThatCannotBeMadeEndsWith255)
{
    std::filesystem::remove_all("/etc/quorvane");
    const Outcome outcome = crash("end");
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.error, "mkdir failed: No such file or directory\n");
}

TEST_F(Crash, SignalThatCannotBeCaughtIsNamedAndStartUpGoesOn)
{
    static const struct {
        int number;
        const char *name;
    } signals[] = {{SIGSEGV, "SEGV"}, {SIGFPE, "FPE"}, {SIGPIPE, "PIPE"}, {SIGBUS, "BUS"}};
    for (const auto &failing : signals) {
        const std::string setting = "FAILING_SIGNAL=" + std::to_string(failing.number);
        const Outcome outcome = crash("end", {setting});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.error,
                  std::string("sigaction SIG") + failing.name + ": Operation not permitted\n");
    }
    EXPECT_EQ(crash("division", {"FAILING_SIGNAL=" + std::to_string(SIGFPE)}).status,
              1000 + SIGFPE);
}

struct Rotation {
    std::vector<std::string> before; // extensions that exist; each file holds its extension
    std::vector<std::string> after;  // contents of .dump, .dump.1, .dump.2, .dump.3
};

TEST_F(Crash, RotationKeepsThreeOlderDumps)
{
    const std::vector<Rotation> rotations = {
        {{}, {"", "", "", ""}},
        {{"current"}, {"", "current", "", ""}},
        {{"current", ".1"}, {"", "current", ".1", ""}},
        {{"current", ".2"}, {"", "current", ".2", ""}},
        {{"current", ".1", ".2", ".3"}, {"", "current", ".1", ".2"}},
        {{".1", ".2"}, {"", ".1", ".2", ""}},
    };
    for (const Rotation &rotation : rotations) {
        SetUp();
        std::filesystem::create_directories(DIRECTORY);
        for (const std::string &extension : rotation.before) {
            write_file(DUMP + (extension == "current" ? "" : extension), extension);
        }
        EXPECT_EQ(crash("end").status, 0);
        const std::vector<std::string> after = {read_file(DUMP), read_file(DUMP + ".1"),
                                                read_file(DUMP + ".2"), read_file(DUMP + ".3")};
        EXPECT_EQ(after, rotation.after);
    }
}

TEST_F(Crash, RotationThatFailsEndsWithItsOwnStatus)
{
    const std::string prefix = "crash_helper_plain: inc_dumpfile_ext: ";
    std::filesystem::create_directories(DIRECTORY);
    write_file(DUMP, "current");
    const Outcome source = crash("end", {"FAILING_NAME_BUFFER=0"});
    EXPECT_EQ(source.status, 31);
    EXPECT_EQ(source.error, prefix + "Malloc failure: Cannot allocate memory\n");
    EXPECT_EQ(crash("end", {"FAILING_NAME_BUFFER=1"}).status, 32);

    write_file(DUMP + ".1", "1");
    write_file(DUMP + ".2", "2");
    std::filesystem::create_directories(DUMP + ".3/not-empty");
    const Outcome rename = crash("end");
    EXPECT_EQ(rename.status, 33);
    EXPECT_EQ(rename.error, prefix + "Error while renaming files: Is a directory\n");
    EXPECT_EXIT(inc_dumpfile_ext(std::string(300, 'x').c_str(), 1, 4), testing::ExitedWithCode(33),
                "Error while renaming files: File name too long");
}

TEST_F(Crash, LongNamesAreCutToTheirBuffers)
{
    const std::string base(99, 'n');
    EXPECT_EQ(crash("null-write", {}, "crash_helper_plain", "/a/b/" + base + "cut").status, 255);
    EXPECT_EQ(count_whole_dumps(read_file(DIRECTORY + "/" + base + ".dump")), 1);
    EXPECT_NE(read_file(DIRECTORY + "/" + base + ".dump.unix_zel"), "");
}

static std::string report_of(const crash_context &context, siginfo_t info = {})
{
    const int fd = memfd_create("report", MFD_CLOEXEC);
    const crash_report report = {.process_name = "name",
                                 .time = 0,
                                 .count = 0,
                                 .signal_number = SIGSEGV,
                                 .info = &info,
                                 .context = &context};
    crash_write_report(fd, &report);
    std::string text = read_file("/proc/self/fd/" + std::to_string(fd));
    (void)close(fd);
    EXPECT_EQ(count_whole_dumps(text), 1) << text;
    return text;
}

static std::string between(const std::string &text, const std::string &from, const std::string &to)
{
    const size_t start = text.find(from) + from.size();
    return text.substr(start, text.find(to, start) - start);
}

static const size_t PAGE_SIZE = 4096;
static const size_t PAGE_WORDS = PAGE_SIZE / sizeof(uint32_t);

TEST(CrashReport, StackSectionStaysInTheReadableWordsOfItsPage)
{
    uint32_t *pages = (uint32_t *)mmap(nullptr, 3 * PAGE_SIZE, PROT_READ | PROT_WRITE,
                                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (uint32_t i = 0; i < 3 * PAGE_WORDS; i++) {
        pages[i] = i;
    }
    ASSERT_EQ(mprotect(pages + 2 * PAGE_WORDS, PAGE_SIZE, PROT_NONE), 0);
    crash_context context = {};
    char expected[400];

    context.sp = (uintptr_t)(pages + PAGE_WORDS - 2); // 8 bytes below the page's end
    (void)snprintf(expected, sizeof expected,
                   "0x%lx): 000003ff\n#  0x%lx: 000003fe 000003fd 000003fc 000003fb\n",
                   (long)context.sp, (long)context.sp);
    const std::string low = between(report_of(context), "# Stack (", "#\n");
    EXPECT_EQ(low.rfind(expected, 0), 0u) << low;
    EXPECT_EQ(low.substr(low.size() - 10), " 000003ee\n");

    context.sp = (uintptr_t)(pages + PAGE_WORDS); // at a page's start: nothing below it
    const std::string high = between(report_of(context), "# Stack (", "#\n");
    EXPECT_EQ(high.substr(high.size() - 10), " 00000400\n");
    EXPECT_NE(high.find(" 00000464"), std::string::npos);
    EXPECT_EQ(high.find(" 00000465"), std::string::npos);

    for (const uintptr_t unreadable :
         {(uintptr_t)(pages + 2 * PAGE_WORDS), (uintptr_t)8, UINTPTR_MAX}) {
        context.sp = unreadable;
        EXPECT_EQ(between(report_of(context), "):", "# Crash"), "\n#\n");
    }
    (void)munmap(pages, 3 * PAGE_SIZE);
}

TEST(CrashReport, BacktraceEndsAtTheFirstAddressThatIsMissing)
{
    crash_symbols_init();
    uintptr_t stack[4] = {};
    uintptr_t frame[3] = {};
    uintptr_t *const beside =
        (uintptr_t *)((char *)&frame[1] + crash_return_offset); // return address of that frame
    const auto text = [&](uintptr_t pc, uintptr_t ra, uintptr_t next) {
        stack[0] = (uintptr_t)&frame[1];
        *beside = next;
        crash_context context = {};
        context.pc = pc;
        context.ra = ra;
        context.sp = (uintptr_t)stack;
        std::string indices;
        const std::string frames = between(report_of(context), "# Stack backtrace:\n", "# End");
        for (size_t at = frames.find("#  "); at != std::string::npos;
             at = frames.find("#  ", at + 1)) {
            indices += frames[at + 3];
        }
        return indices;
    };
    const uintptr_t code = (uintptr_t)&crashdump_init;
    EXPECT_EQ(text(code, code, code), "123");
    EXPECT_EQ(text(code, code, 0), "12");
    EXPECT_EQ(text(code, 0, code), "1");
    EXPECT_EQ(text(0x1000, code, code), "23");
    EXPECT_EQ(text(code, 0x1000, code), "13");
    EXPECT_EQ(text(0, 0, 0), "");
}

TEST(CrashReport, CausesRegistersAndWideAddresses)
{
    crash_context context = {};
    for (uint32_t i = 0; i < CRASH_REGISTERS; i++) {
        context.registers[i] = i;
    }
    context.registers[29] = (uintptr_t)0x7ffc12345678abcd;
    context.mdlo = 0x123456789abcdef0;
    static const struct {
        int code;
        const char *line;
    } causes[] = {{1, "1 (Addr map error)\n"},
                  {2, "2 (Access privilege error)\n"},
                  {128, "128 (Unknown)\n"},
                  {-6, "-6 (Unknown)\n"},
                  {0, "0 (Unknown)\n"}};
    for (const auto &cause : causes) {
        siginfo_t info = {};
        info.si_code = cause.code;
        EXPECT_NE(report_of(context, info).find(cause.line), std::string::npos) << cause.line;
    }
    const std::string text = report_of(context);
    EXPECT_NE(text.find("# General Registers: \n\n#   00(R0  )=0x00000000 01(AT  )=0x00000001 "
                        "02(V0  )=0x00000002 03(V1  )=0x00000003\n#   04(A0  )=0x00000004"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("#   28(GP  )=0x0000001c 29(SP  )=0x7ffc12345678abcd 30(S8  )=0x0000001e "
                        "31(RA  )=0x0000001f\n# (MDLO)=0x123456789abcdef0 (MDHI)=0x00000000\n"),
              std::string::npos)
        << text;
}

TEST(CrashSymbols, NamesAreThoseOfTheLoader)
{
    crash_symbols_init();
    static int data = 0;
    Dl_info library = {};
    ASSERT_NE(dladdr((void *)&printf, &library), 0);
    std::vector<uintptr_t> addresses = {
        (uintptr_t)&data, (uintptr_t)&crashdump_init, 0, 8, (uintptr_t)&addresses, UINTPTR_MAX};
    for (uintptr_t offset = 0; offset < 0x180000; offset += 4099) {
        addresses.push_back((uintptr_t)library.dli_fbase + offset);
    }
    uint32_t named = 0;
    for (const uintptr_t address : addresses) {
        Dl_info expected = {};
        crash_symbol found = {};
        const int known = dladdr((void *)address, &expected); // NOLINT(performance-no-int-to-ptr)
        ASSERT_EQ(crash_find_symbol(address, &found), known != 0 ? 0 : -1) << std::hex << address;
        if (known != 0) {
            EXPECT_STREQ(found.object, expected.dli_fname);
            EXPECT_EQ(found.name[0] != '\0', expected.dli_sname != nullptr) << found.name;
        }
        if (known != 0 && expected.dli_sname != nullptr) {
            EXPECT_EQ(found.offset, address - (uintptr_t)expected.dli_saddr) << found.name;
            named++;
        }
    }
    EXPECT_GT(named, 20u);
    EXPECT_EQ(crash_is_code((uintptr_t)&printf), 1);
    EXPECT_EQ(crash_is_code((uintptr_t)&data), 0);
}

TEST(CrashClock, TimeIsThatOfCtime)
{
    static const time_t NOW = 1420532045; // the clock of a device that has not been set
    static const time_t START_OF_2020 = 1577836800;
    static const time_t times[] = {0,          -1,         -86401,     951782400,  1582934400,
                                   1583020799, 1679792399, 1679792400, 1698541199, 1698541200,
                                   1735689599, 1777777777, 1900000000, 2208988800};
    for (const char *zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "NST3:30NDT,M3.2.0,M11.1.0",
                             "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45"}) {
        ASSERT_EQ(setenv("TZ", zone, 1), 0); // NOLINT(concurrency-mt-unsafe)
        crash_wall_clock_init(NOW);
        for (const time_t time : times) {
            char expected[CRASH_TIME_SIZE] = {};
            char text[CRASH_TIME_SIZE];
            struct tm at = {};
            // Before the table its first offset holds: the one at the start of 2020.
            const time_t source = std::max(time, START_OF_2020);
            (void)localtime_r(&source, &at);
            const time_t shifted = time + at.tm_gmtoff;
            (void)asctime_r(gmtime_r(&shifted, &at), expected);
            expected[strcspn(expected, "\n")] = '\0';
            crash_put_time(time, text);
            EXPECT_STREQ(text, expected) << zone << " " << time;
        }
    }
    (void)unsetenv("TZ"); // NOLINT(concurrency-mt-unsafe)
}
