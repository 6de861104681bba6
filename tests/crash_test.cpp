// Real faults in child processes, and what they leave behind; the dump's text for contexts that a
// fault does not bring about at will; the set-up of the kernel's core dumps.
#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <latch>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "crash/core_setup.h"
#include "crash/crashdump.h"
#include "crash/dump_report.h"
#include "crash/dump_rotation.h"
#include "crash/signal_stack.h"
#include "crash/symbols.h"
#include "crash/wall_clock.h"
#include "tests/support/wait.h"

using support::read_file;
using support::write_file;
using testing::Eq;
using testing::ExitedWithCode;
using testing::KilledBySignal;
using testing::PrintToString;

using Texts = std::vector<std::string>;

static const std::string PROGRAM = program_invocation_short_name;
static const std::string DIRECTORY = CRASHDUMP_DIRECTORY;
static const std::string DUMP = DIRECTORY + "/crashing.dump";
static const std::string SNAPSHOT = DUMP + ".unix_zel";

// Linked in place of the C library's (-Wl,--wrap): one allocation or signal fails on demand, and
// dumps brought to storage are counted.
static int failing_name_buffer = -1;
static int failing_signal = -1;
static bool memory_is_not_read;
static int syncs; // atomic

// What a sanitizer would report instead of letting it happen.
#define REAL_FAULT __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

extern "C" {

void *__real_malloc(size_t size);
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *old);
int __real_fsync(int fd);
long __real_syscall(long number, ...);

void *__wrap_malloc(size_t size)
{
    static const size_t NAME_BUFFER = 210;
    if (size == NAME_BUFFER && failing_name_buffer-- == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    if (number == failing_signal) {
        errno = EPERM;
        return -1;
    }
    return __real_sigaction(number, action, old);
}

int __wrap_fsync(int fd)
{
    const int result = __real_fsync(fd);
    __atomic_add_fetch(&syncs, 1, __ATOMIC_RELEASE);
    return result;
}

long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    if (number == SYS_process_vm_readv && memory_is_not_read) {
        errno = ENOSYS;
        return -1;
    }
    return __real_syscall(number, a, b, c, d, e, f);
}

REAL_FAULT void fault_null_write()
{
    volatile int *volatile nowhere = nullptr;
    *nowhere = 1;
}

REAL_FAULT void fault_read_only_write()
{
    *(volatile char *)"read only" = 1;
}

REAL_FAULT void fault_division()
{
    volatile int zero = 0;
    zero = 7 / zero;
}

REAL_FAULT void fault_empty_mapping()
{
    const int fd = memfd_create("empty", MFD_CLOEXEC);
    void *page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    (void)*(volatile char *)page;
}

REAL_FAULT void fault_wild_jump()
{
    void (*volatile wild)() = (void (*)())0x10feed10;
    wild();
    wild = nullptr; // so that the call above is a call
}

REAL_FAULT void fault_stack_pointer()
{
#if defined(__x86_64__)
    __asm__ volatile("mov $0x5afe10, %%rsp\n\tpush %%rax" ::: "memory");
#elif defined(__i386__)
    __asm__ volatile("mov $0x5afe10, %%esp\n\tpush %%eax" ::: "memory");
#elif defined(__aarch64__)
    __asm__ volatile("mov sp, %0\n\tstr x0, [sp]" ::"r"(0x5afe10L) : "memory");
#elif defined(__arm__)
    __asm__ volatile("mov sp, %0\n\tstr r0, [sp]" ::"r"(0x5afe10L) : "memory");
#else
    __asm__ volatile("move $29, %0\n\tsw $2, 0($29)" ::"r"(0x5afe10L) : "memory");
#endif
}

REAL_FAULT void fault_full_stack()
{
    volatile char frame[4096];
    frame[0] = 0;
    if (frame[0] == 0) {
        fault_full_stack();
    }
    frame[0] = 1; // so that the call above is a call
}

} // extern "C"

// A free block whose neighbour pointer was overwritten: the next malloc() that looks for room
// follows it with the heap's lock held, for the process has more than one thread.
[[maybe_unused]] REAL_FAULT static void fault_in_malloc()
{
    void *volatile block = malloc(4000);
    void *volatile fence = malloc(4000);
    free(block);
    ((void *volatile *)block)[1] = (void *)0x10feed10;
    block = malloc(8000);
    (void)fence;
}

static void fault_in_log()
{
    openlog((const char *)0x10, LOG_PID, LOG_LOCAL2);
    syslog(LOG_ERR, "never sent");
}

// The child of a death test: daemon `name` starts and does what `fault` does, and aborts unless the
// handler ends it. Standard output goes to a file.
static void crash(
    void (*fault)() = [] { _exit(0); }, const char *name = "/usr/sbin/crashing")
{
    (void)alarm(support::DEADLINE_S);
    const rlimit no_core = {};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    for (const int number : {SIGSEGV, SIGFPE, SIGBUS}) {
        (void)signal(number, SIG_DFL); // a sanitizer would answer it
    }
    (void)dup2(open("/tmp/crash_out", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
               STDOUT_FILENO);
    crashdump_init(name);
    (void)atexit(abort);
    (void)pthread_atfork(abort, nullptr, nullptr);
    fault();
    abort();
}

// Threads end with the process.
static void start_worker(void (*body)())
{
    std::thread([body] {
        (void)crashdump_thread_init();
        body();
    }).detach();
}

template <void (*fault)()> static void fault_on_worker()
{
    start_worker(fault);
    (void)pause();
}

static void fault_on_two_threads()
{
    static std::latch both(2);
    static const auto fault = [] {
        both.arrive_and_wait();
        fault_null_write();
    };
    start_worker(fault);
    fault();
}

// Three more threads crash, each when the dump before is on storage, and then a fourth.
static void fault_on_five_threads()
{
    crashdump_register_usrcb([] { (void)pause(); });
    for (int dumps = 0; dumps <= 4; dumps++) {
        while (__atomic_load_n(&syncs, __ATOMIC_ACQUIRE) < 2 * dumps) {
            (void)usleep(1000);
        }
        start_worker(fault_null_write);
    }
    (void)pause();
}

// Another thread holds standard output, and the loader, which opens the pipe with its lock held and
// then waits for content.
static void fault_while_locks_are_held()
{
    static const char *const pipe = "/tmp/crash_pipe";
    (void)mkfifo(pipe, 0600);
    start_worker([] {
        flockfile(stdout);
        (void)dlopen(pipe, RTLD_NOW);
    });
    (void)open(pipe, O_WRONLY | O_CLOEXEC);
    fault_null_write();
}

static void fault_without_descriptors()
{
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    fault_null_write();
}

static void fault_with_full_output()
{
    int ends[2];
    static char block[4096];
    if (pipe2(ends, O_CLOEXEC) == 0 && fcntl(ends[1], F_SETPIPE_SZ, sizeof block) == sizeof block &&
        write(ends[1], block, sizeof block) == sizeof block &&
        dup2(ends[1], STDOUT_FILENO) == STDOUT_FILENO) {
        fault_null_write();
    }
}

static const std::string DUMP_FORM =
    ", crashed at [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}, cnt=[0-9]+\n"
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

// `count` whole dumps, as in a regular expression, one right behind the other, and in them `parts`
// one after the other.
static void expect_dumps(const std::string &text, const std::string &count, const Texts &parts = {},
                         const std::string &name = "crashing")
{
    const testing::Matcher<std::string> dumps =
        testing::MatchesRegex("(# " + name + DUMP_FORM + "){" + count + "}");
    EXPECT_TRUE(dumps.Matches(text)) << text;
    size_t at = 0;
    for (const std::string &part : parts) {
        at = text.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\n" << text;
        at += part.size();
    }
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

static const std::pair<void (*)(), Texts> FAULTS[] = {
    {fault_null_write,
     {"#  1: ", "<fault_null_write+0x", "Signal # = 11\n", "Cause code = 1 (Addr map error)\n",
      "access addr = (nil)\n"}},
    {fault_read_only_write,
     {"#  1: ", "<fault_read_only_write+0x", "Signal # = 11\n",
      "Cause code = 2 (Access privilege error)\n"}},
    {fault_division, {"<fault_division+0x", "Signal # = 8\n"}},
    {fault_empty_mapping, {"<fault_empty_mapping+0x", "Signal # = 7\n"}},
    {fault_wild_jump,
     {"backtrace:\n#  2: ", "<fault_wild_jump+0x", "Signal # = 11\n",
      "access addr = 0x10feed10\n"}},
    {fault_stack_pointer, {"<fault_stack_pointer+0x", "# Stack (0x5afe10):\n#\n"}},
    {fault_full_stack, {"<fault_full_stack+0x", "Signal # = 11\n"}},
    {fault_on_worker<fault_full_stack>, {"<fault_full_stack+0x", "Signal # = 11\n"}},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // theirs is another heap
    {fault_on_worker<fault_in_malloc>, {"libc.so", "Signal # = 11\n"}},
#endif
    {fault_on_worker<fault_in_log>, {"Signal # = 11\n"}},
    {[] {
         const time_t when = 0;
         (void)localtime_r(&when, (struct tm *)0x10);
     },
     {"Signal # = 11\n"}},
    {fault_while_locks_are_held, {"<fault_null_write+0x"}},
    {fault_without_descriptors, {"<fault_null_write+0x"}},
    {fault_with_full_output, {"<fault_null_write+0x"}},
    {[] {
         memory_is_not_read = true;
         fault_null_write();
     },
     {"#  1: ", "<fault_null_write+0x", "# Stack (0x", "\n#  0x", "Signal # = 11\n"}},
    {[] { (void)raise(SIGPIPE); }, {"Signal # = 13\n", "Cause code = -6 (Unknown)\n"}},
};

TEST_F(Crash, EveryFaultLeavesOneWholeDumpAndStatus255)
{
    for (const auto &[fault, shown] : FAULTS) {
        SCOPED_TRACE(PrintToString(shown));
        SetUp();
        EXPECT_EXIT(crash(fault), ExitedWithCode(255), "");
        expect_dumps(read_file(DUMP), "1", shown);
        EXPECT_NE(read_file(SNAPSHOT), "");
    }
    const std::string base(99, 'n'); // what is kept of a long name
    EXPECT_EXIT(crash(fault_null_write, ("/a/b/" + base + "cut").c_str()), ExitedWithCode(255), "");
    expect_dumps(read_file(DIRECTORY + "/" + base + ".dump"), "1", {}, base);
    EXPECT_NE(read_file(DIRECTORY + "/" + base + ".dump.unix_zel"), "");
}

TEST_F(Crash, ThreadsThatFaultTogetherNeverMixTheirDumps)
{
    for (int round = 0; round < 20; round++) {
        SetUp();
        EXPECT_EXIT(crash(fault_on_two_threads), ExitedWithCode(255), "");
        expect_dumps(read_file(DUMP), "1,2");
    }
}

TEST_F(Crash, FourthDumpHandsFurtherFaultsToTheKernel)
{
    EXPECT_EXIT(crash(fault_on_five_threads), KilledBySignal(SIGSEGV), "");
    expect_dumps(read_file(DUMP), "4", {", cnt=0\n", ", cnt=1\n", ", cnt=2\n", ", cnt=3\n"});
}

TEST_F(Crash, CallbackRunsBetweenStoredDumpAndSnapshot)
{
    // It ends the process, so that the files stay as they are at that moment.
    static const auto fault = [] {
        crashdump_register_usrcb([] { _exit(syncs); });
        fault_null_write();
    };
    EXPECT_EXIT(crash(fault), ExitedWithCode(2), "") << "both times brought to storage";
    expect_dumps(read_file(DUMP), "1");
    EXPECT_FALSE(std::filesystem::exists(SNAPSHOT));
    EXPECT_EQ(read_file("/tmp/crash_out"),
              "crashing registers crashdump usrcb\nCreating dumpfile: " + DUMP + "\n");
}

TEST_F(Crash, HangingSnapshotIsKilledAndTheProcessEnds)
{
    std::filesystem::create_directories("/tmp/crash_bin");
    write_file("/tmp/crash_bin/date", "#!/bin/sh\necho $$ > /tmp/pid\nexec /bin/sleep 900\n");
    std::filesystem::permissions("/tmp/crash_bin/date", std::filesystem::perms::owner_all);
    static const auto fault = [] {
        for (int fd = 3; fd < 64; fd++) { // the test waits until its pipe is closed everywhere
            (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        (void)setenv("PATH", "/tmp/crash_bin", 1);
        fault_null_write();
    };
    EXPECT_EXIT(crash(fault), ExitedWithCode(255), "");
    expect_dumps(read_file(DUMP), "1");
    const std::string hanging = "/proc/" + std::to_string(std::stol(read_file("/tmp/pid")));
    EXPECT_TRUE(support::wait_until([&] { // ended: gone, or a zombie that nobody reaps here
        const std::string stat = read_file(hanging + "/stat");
        return stat.empty() || stat.find(") Z ") != std::string::npos;
    }));
}

TEST_F(Crash, SnapshotHoldsTheDateAndThenTheSockets)
{
    std::filesystem::create_directories("/tmp/crash_tools");
    for (const std::string tool : {"/tmp/crash_tools/date", "/tmp/crash_tools/cat"}) {
        write_file(tool, "#!/bin/sh\necho $0 $*\n");
        std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    }
    static const auto fault = [] {
        (void)setenv("PATH", "/tmp/crash_tools", 1);
        fault_null_write();
    };
    EXPECT_EXIT(crash(fault), ExitedWithCode(255), "");
    EXPECT_EQ(read_file(SNAPSHOT),
              "/tmp/crash_tools/date\n/tmp/crash_tools/cat /proc/net/unix_zel\n");
}

TEST_F(Crash, DumpThatCannotBeMadeEndsWithItsOwnStatus)
{
    std::filesystem::create_directories(DIRECTORY);
    std::filesystem::create_symlink("/nowhere/dump", DUMP);
    EXPECT_EXIT(
        crash(fault_null_write), ExitedWithCode(37),
        Eq(PROGRAM + ": Could not open dump file " + DUMP + " : No such file or directory\n"));
    std::filesystem::remove_all("/etc/quorvane");
    EXPECT_EXIT(crash(), ExitedWithCode(255), Eq("mkdir failed: No such file or directory\n"));
}

TEST_F(Crash, SignalThatCannotBeCaughtIsNamedAndStartUpGoesOn)
{
    const std::pair<int, std::string> signals[] = {
        {SIGSEGV, "SEGV"}, {SIGFPE, "FPE"}, {SIGPIPE, "PIPE"}, {SIGBUS, "BUS"}};
    for (const auto &[number, name] : signals) {
        EXPECT_EXIT((failing_signal = number, crash()), ExitedWithCode(0),
                    Eq("sigaction SIG" + name + ": Operation not permitted\n"));
    }
    EXPECT_EXIT((failing_signal = SIGFPE, crash(fault_division)), KilledBySignal(SIGFPE), "");
}

TEST_F(Crash, RotationKeepsThreeOlderDumps)
{
    // What is in the dump file, .1, .2 and .3; '-': no such file.
    static const std::pair<std::string, std::string> rotations[] = {
        {"----", "----"}, {"a---", "-a--"}, {"ab--", "-ab-"},
        {"a-c-", "-ac-"}, {"abcd", "-abc"}, {"-bc-", "-bc-"},
    };
    static const std::string names[] = {DUMP, DUMP + ".1", DUMP + ".2", DUMP + ".3"};
    for (const auto &[before, after] : rotations) {
        SetUp();
        std::filesystem::create_directories(DIRECTORY);
        for (size_t i = 0; i < 4; i++) {
            if (before[i] != '-') {
                write_file(names[i], before.substr(i, 1));
            }
        }
        EXPECT_EXIT(crash(), ExitedWithCode(0), "");
        std::string left;
        for (const std::string &name : names) {
            left += std::filesystem::exists(name) ? read_file(name) : "-";
        }
        EXPECT_EQ(left, after) << before;
    }
}

TEST_F(Crash, RotationThatFailsEndsWithItsOwnStatus)
{
    const std::string prefix = PROGRAM + ": inc_dumpfile_ext: ";
    const std::string renaming = prefix + "Error while renaming files: ";
    std::filesystem::create_directories(DIRECTORY);
    write_file(DUMP, "current");
    EXPECT_EXIT((failing_name_buffer = 0, crash()), ExitedWithCode(31),
                Eq(prefix + "Malloc failure: Cannot allocate memory\n"));
    EXPECT_EXIT((failing_name_buffer = 1, crash()), ExitedWithCode(32), "");
    write_file(DUMP + ".1", "1");
    write_file(DUMP + ".2", "2");
    std::filesystem::create_directories(DUMP + ".3/not-empty");
    EXPECT_EXIT(crash(), ExitedWithCode(33), Eq(renaming + "Is a directory\n"));
    EXPECT_EXIT(inc_dumpfile_ext(std::string(300, 'x').c_str(), 1, 4), ExitedWithCode(33),
                Eq(renaming + "File name too long\n"));
}

static std::string expect_report(const crash_context &context, const Texts &parts = {},
                                 int cause = 0)
{
    siginfo_t info = {};
    info.si_code = cause;
    const crash_report report = {"name", 0, 0, SIGSEGV, &info, &context};
    const int fd = memfd_create("report", MFD_CLOEXEC);
    crash_write_report(fd, &report);
    std::string text = read_file("/proc/self/fd/" + std::to_string(fd));
    (void)close(fd);
    expect_dumps(text, "1", parts, "name");
    return text;
}

TEST(CrashReport, StackSectionStaysInTheReadableWordsOfItsPage)
{
    static const size_t PAGE = 4096;
    static const size_t WORDS = PAGE / sizeof(uint32_t);
    uint32_t *pages = (uint32_t *)mmap(nullptr, 3 * PAGE, PROT_READ | PROT_WRITE,
                                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (uint32_t i = 0; i < 3 * WORDS; i++) {
        pages[i] = i;
    }
    ASSERT_EQ(mprotect(pages + 2 * WORDS, PAGE, PROT_NONE), 0);
    uint32_t *const low = pages + WORDS - 2; // 8 bytes below the page's end
    uint32_t *const high = pages + WORDS;    // at a page's start: nothing below it
    const std::string row = PrintToString((void *)low);
    const auto expect_stack = [](uint32_t *sp, const Texts &parts) {
        crash_context context = {};
        context.sp = (uintptr_t)sp;
        (void)expect_report(context, parts);
    };
    expect_stack(low, {"# Stack (" + row + "): 000003ff\n#  " + row +
                           ": 000003fe 000003fd 000003fc 000003fb\n",
                       " 000003ee\n#\n# Crash"});
    expect_stack(high, {"):\n#  " + PrintToString((void *)(high + 100)) + ": 00000464 ",
                        " 00000400\n#\n# Crash"});
    for (uint32_t *unreadable : {pages + 2 * WORDS, (uint32_t *)8, (uint32_t *)UINTPTR_MAX}) {
        expect_stack(unreadable, {"):\n#\n# Crash", "Cause code = 0 (Unknown)\n"});
    }
    (void)munmap(pages, 3 * PAGE);
}

TEST(CrashReport, BacktraceEndsAtTheFirstAddressThatIsMissing)
{
    crash_symbols_init();
    // `next` is beside the frame that the stack points to.
    const auto shown = [](uintptr_t pc, uintptr_t ra, uintptr_t next) {
        uintptr_t frame[3] = {};
        const uintptr_t stack[] = {(uintptr_t)&frame[1], 0, 0, 0};
        *(uintptr_t *)((char *)&frame[1] + crash_return_offset) = next;
        crash_context context = {};
        context.pc = pc;
        context.ra = ra;
        context.sp = (uintptr_t)stack;
        const std::string text = expect_report(context);
        std::string indices;
        for (size_t at = text.find("\n#  "); text[at + 5] == ':'; at = text.find('\n', at + 1)) {
            indices += text[at + 4];
        }
        return indices;
    };
    const uintptr_t code = (uintptr_t)&crashdump_init;
    EXPECT_EQ(shown(code, code, code), "123");
    EXPECT_EQ(shown(code, code, 0), "12");
    EXPECT_EQ(shown(code, 0, code), "1");
    EXPECT_EQ(shown(0x1000, code, code), "23");
    EXPECT_EQ(shown(code, 0x1000, code), "13");
    EXPECT_EQ(shown(0, 0, 0), "");
}

TEST(CrashReport, UnknownCausesRegistersAndWideValues)
{
    crash_context context = {};
    for (uint32_t i = 0; i < CRASH_REGISTERS; i++) {
        context.registers[i] = i;
    }
    context.registers[29] = (uintptr_t)0x7ffc12345678abcd;
    context.mdlo = 0x123456789abcdef0;
    (void)expect_report(context,
                        {"Cause code = 128 (Unknown)\n",
                         "# General Registers: \n\n#   00(R0  )=0x00000000 01(AT  )=0x00000001 "
                         "02(V0  )=0x00000002 03(V1  )=0x00000003\n#   04(A0  )=0x00000004",
                         "#   28(GP  )=0x0000001c 29(SP  )=0x7ffc12345678abcd 30(S8  )=0x0000001e "
                         "31(RA  )=0x0000001f\n# (MDLO)=0x123456789abcdef0 (MDHI)=0x00000000\n"},
                        128);
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
        const bool known = dladdr((void *)address, &expected) != 0;
        ASSERT_EQ(crash_find_symbol(address, &found), known ? 0 : -1) << std::hex << address;
        if (known) {
            EXPECT_STREQ(found.object, expected.dli_fname);
            EXPECT_EQ(found.name[0] != '\0', expected.dli_sname != nullptr) << found.name;
        }
        if (expected.dli_sname != nullptr) {
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
    static const time_t times[] = {0,          -1,         -86401,     951782400,  1420532045,
                                   1577836799, 1582934400, 1583020799, 1679792399, 1679792400,
                                   1698541199, 1698541200, 1735689599, 2208988800};
    for (const char *zone :
         {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45"}) {
        ASSERT_EQ(setenv("TZ", zone, 1), 0);
        for (const time_t time : times) {
            char expected[CRASH_TIME_SIZE] = {};
            char text[CRASH_TIME_SIZE];
            struct tm at = {};
            crash_renew_zone_offset(time);
            (void)strftime(expected, sizeof expected, "%a %b %e %T %Y", localtime_r(&time, &at));
            crash_put_time(time, text);
            EXPECT_STREQ(text, expected) << zone << " " << time;
        }
    }
}

static const std::string UNTOUCHED = "untouched, and longer than every setting there is";

// The child of a death test; its standard error is what is set then. The whole of /proc is
// replaced, so that the machine's settings are out of reach.
static void set_up_cores(const char *name, const std::string &platform, const char *hardware)
{
    const std::string pattern_file = "/proc/sys/kernel/core_pattern";
    const std::string uses_pid_file = "/proc/sys/kernel/core_uses_pid";
    std::filesystem::create_directories("/tmp/core_proc/sys/kernel");
    std::filesystem::create_directories("/tmp/core_proc/zel_hw_info");
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("/tmp/core_proc", "/proc", nullptr, MS_BIND, nullptr) != 0 ||
        std::filesystem::exists("/proc/self")) {
        _exit(1);
    }
    write_file(pattern_file, UNTOUCHED);
    write_file(uses_pid_file, UNTOUCHED);
    write_file("/proc/zel_hw_info/platform", hardware);
    write_file("/etc/ac_env_init", "PLATFORM=" + platform + "\n");
    (void)unsetenv("PLATFORM");
    // Not the hard one: a privilege that not every root has would be needed to raise it again.
    rlimit limits = {};
    (void)getrlimit(RLIMIT_CORE, &limits);
    limits.rlim_cur = 4096;
    (void)setrlimit(RLIMIT_CORE, &limits);
    core_dump_setup(name);
    (void)getrlimit(RLIMIT_CORE, &limits);
    std::cerr << read_file(pattern_file) << "|" << read_file(uses_pid_file) << "|"
              << limits.rlim_cur;
    _exit(0);
}

TEST(CoreSetup, DaemonAndPlatformDecideWhatIsWrittenOverTheFiles)
{
    static const struct {
        const char *name, *platform, *hardware, *pattern; // "": nothing is set
    } cases[] = {
        {"pelkin", "brin900", "K0900LT", "/tmp/dump/%e.core"},
        {"/usr/sbin/kivren", "brin900", "k0900", "/etc/quorvane/dump/%e.core"},
        {"vesk", "qx4410", "K0900LT", "/etc/quorvane/dump/%e.core"},
        {"dobbert", "fenwold-standard", "", "|/bin/kelm_run.sh fenwold-compress-coredump %e"},
        {"mavrid", "brin900lt", "", "/tmp/dump/%e.core"},
        {"trundel", "other", "K0900LT", ""},
        {"lorixx", "qx4410", "", "/etc/quorvane/dump/%e.core"},
        {"someone", "qx4410", "", ""},
        {nullptr, "qx4410", "", ""},
    };
    for (const auto &one : cases) {
        const std::string pattern = one.pattern;
        EXPECT_EXIT(set_up_cores(one.name, one.platform, one.hardware), ExitedWithCode(0),
                    Eq(pattern + UNTOUCHED.substr(pattern.size()) + "|" +
                       (pattern.empty() ? "" : "0") + UNTOUCHED.substr(pattern.empty() ? 0 : 1) +
                       "|" + (pattern.empty() ? "4096" : std::to_string(RLIM_INFINITY))));
    }
}

TEST(CoreSetup, WriteThatFailsIsToldAndMakesNoFile)
{
    for (const char *path : {"/dev/full", "/tmp/core_missing", (const char *)nullptr}) {
        EXPECT_EQ(core_write_file(path, "abc"), -1);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/core_missing"));
}
