/*
 * The running daemon with its system calls failing, then with memory, descriptors and disks running
 * short and the wall clock jumping: see scripts/faults. After each fault the daemon must live, be
 * idle, have said what it should, have lost no descriptor, and serve the next request.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/daemon/monitor.h"
#include "core/daemon/signals.h"
#include "tests/faults/fault_control.h"
#include "tests/support/daemon.h"
#include "tests/support/requester.h"
#include "tests/support/server.h"

using namespace support;

/*
 * Call, error, the thread whose calls fail, the road that the requests take, and what the daemon
 * must have said in at least one of the row's cases (none: it carries on by itself). Each row is
 * six cases: the fault comes once, at the first, the third and a random occurrence, and from there
 * on for as long as the case lasts. EINTR for ever is no fault that a kernel can make, but the row
 * shows that even then nothing spins.
 */
struct Row {
    std::string call;
    std::string error;
    std::string thread;
    std::string road;
    std::string said = "";
};
static const Row matrix[] = {
    {"socket", "EMFILE", "all", "closing", "create tcp socket fail."},
    {"socket", "ENOMEM", "all", "closing-tls", "create tcp socket fail."},
    {"connect", "ECONNREFUSED", "all", "closing", "connect fail. errno=111"},
    {"connect", "ECONNRESET", "all", "closing-tls", "connect fail. errno=104"},
    {"connect", "EINTR", "all", "closing", "connect fail. errno=4"},
    {"pipe", "EMFILE", "main", "new", "Unable to create pipe:"},
    {"pipe", "ENOMEM", "main", "new-tls", "Unable to create pipe:"},
    {"semget", "ENOSPC", "main", "new", "Unable to create semaphore:"},
    {"semget", "ENOMEM", "main", "new", "Unable to create semaphore:"},
    {"semop", "EAGAIN", "main", "kept"},
    {"semop", "ENOMEM", "main", "kept"},
    {"semop", "EINTR", "worker", "kept"},
    {"clone", "EAGAIN", "main", "new", "cannot start social_media_thread thread."},
    {"clone", "ENOMEM", "main", "new-tls", "cannot start social_media_thread thread."},
    {"mmap", "ENOMEM", "main", "new", "cannot start social_media_thread thread."},
    {"read", "EINTR", "worker", "kept"},
    {"read", "EAGAIN", "worker", "kept"},
    {"read", "EIO", "worker", "kept", "failed to read data, err(5)"},
    {"read", "ECONNRESET", "worker", "kept-tls", "will exit because error occurred."},
    {"read", "EIO", "main", "signal", "the bytes of signal number read from pipe invalid: -1"},
    {"write", "EINTR", "main", "kept"},
    {"write", "EAGAIN", "main", "kept", "failed to send data, send buffer is full? err(11)"},
    {"write", "ENOMEM", "main", "kept", "failed to send task to thread."},
    {"write", "EPIPE", "main", "kept", "thread should exit already, del it then retry."},
    {"write", "ENOSPC", "worker", "file", "write fail."},
    {"write", "EAGAIN", "worker", "kept-tls", "SSL write error(SSL_ERROR_WANT_WRITE) err_code=3"},
    {"write", "ECONNRESET", "worker", "kept-tls", "send https request fail."},
    {"write", "ENOSPC", "all", "crash"},
    {"write", "EINTR", "all", "crash"},
    {"sendto", "EINTR", "worker", "kept"},
    {"sendto", "EAGAIN", "worker", "kept", "Socket Write error:11"},
    {"sendto", "ECONNRESET", "worker", "kept", "Socket Write error:104"},
    {"sendto", "ENOMEM", "worker", "fbauth", "Socket Write error:12"},
    {"sendto", "EAGAIN", "monitor", "probe"},
    {"recvfrom", "EINTR", "worker", "kept"},
    {"recvfrom", "EAGAIN", "worker", "kept"},
    {"recvfrom", "ECONNRESET", "worker", "kept", "Socket Read error:104"},
    {"recvfrom", "ENOMEM", "main", "kept",
     "VOK_RECVFROM returns -1 -- Cannot allocate memory (12)"},
    {"recvfrom", "EINTR", "main", "kept", "VOK_RECVFROM returns -1 -- Interrupted system call (4)"},
    {"recvfrom", "ENOMEM", "monitor", "probe"},
    {"select", "ENOMEM", "main", "kept", "Select() returns -1 -- Cannot allocate memory (12)"},
    {"select", "EINTR", "main", "kept", "Select() returns -1 -- Interrupted system call (4)"},
    {"select", "ENOMEM", "follow", "follow"},
    {"poll", "EINTR", "worker", "kept"},
    {"poll", "ENOMEM", "worker", "kept", "Socket I/O"},
    {"poll", "ENOMEM", "monitor", "probe"},
    {"open", "EMFILE", "worker", "closing", "can't get \"tcp\" protocol entryn"},
    {"open", "ENOSPC", "worker", "file", "open file"},
    {"open", "EMFILE", "main", "signal"},
    {"open", "ENOSPC", "all", "crash", "Could not open dump file"},
    {"mkdir", "ENOSPC", "worker", "file", "make directory failed:"},
    {"fsync", "EIO", "all", "crash"},
};

static const int REQUESTS = 6; // of each case
static const char TRACE[] = "/tmp/trace";
static const char DUMPS[] = "/etc/quorvane/dump";

// What is fixed while the daemons come and go. All servers of 127.0.0.0/8 are these two; hosts in
// 127.7 close after each answer.
static std::string answer_to(const std::string &request)
{
    const size_t at = request.find("?n=");
    return contains(request, "GET /token")       ? R"({"valid":false})"
           : contains(request, "/cgi-bin/token") ? R"({"access_token":"a","expires_in":7200})"
           : contains(request, "/batchget?")
               ? R"({"user_info_list":[{"subscribe":0,"openid":"o"}]})"
               : request.substr(at + 3, request.find(' ', at) - at - 3);
}

static void serve(Connection &connection)
{
    for (std::string request = connection.read_request();
         !request.empty() && connection.send(answer(answer_to(request))) &&
         !contains(request, "Host: 127.7.");
         request = connection.read_request()) {
    }
}
static SyslogSink *system_log;
static Requester *requester;
static Requester *kivren;
static fault_control *control; // of a daemon under tests/faults/preload.c

static std::string case_name;
static bool case_failed;
static int cases;
static int failed;
static uint32_t number; // of the latest request; its host, file and station are its own

static void problem(const std::string &what)
{
    std::fprintf(stderr, "FAILED: %s: %s\n", case_name.c_str(), what.c_str());
    case_failed = true;
}

static void expect(bool holds, const std::string &what)
{
    if (!holds) {
        problem(what);
    }
}

// --- the roads

static std::string address_of(uint32_t one)
{
    return bytes_of(one);
}

static std::string file_of(uint32_t one)
{
    return "/run/answers/" + std::to_string(one) + "/answer";
}

// Sends request `number`; what must come of it.
static std::string send_on(const std::string &road)
{
    const std::string text = std::to_string(number);
    const std::string host = road.starts_with("closing") ? "127.7.0.1"
                             : road.starts_with("new")
                                 ? "127." + std::to_string(100 + number / 250 % 100) + "." +
                                       std::to_string(number % 250) + ".1"
                                 : "127.5.0.1";
    Request request = {.url = (road.ends_with("-tls") ? "https://" : "http://") + host +
                              "/?n=" + text};
    if (road == "probe") {
        std::string probe = message(VOKMON_MSG_PROBE, "");
        std::string reply = message(VOKMON_MSG_PROBE_REPLY, "", PELKIN_MODULE_ID);
        (void)address_of(number).copy(&probe[2], 2);
        (void)address_of(number).copy(&reply[2], 2);
        (void)requester->send(probe, PELKIN_MONITOR_SOCKET_PATH);
        return reply;
    }
    if (road == "follow") {
        (void)requester->send(check_follow(follow_request(address_of(number), "o", "a" + text)));
        return removal(std::string(2, '\0') + address_of(number));
    }
    if (road == "fbauth") {
        request = {.url = "http://127.5.0.1/token",
                   .text = "x",
                   .msg_id = PELKIN_MSG_FBAUTH_REQ,
                   .resp_method = PELKIN_RESP_ANALYSE,
                   .address = std::string(2, '\0') + address_of(number)};
    }
    if (road == "file") {
        request.resp_method = PELKIN_RESP_FILE;
        request.file_path = file_of(number);
    }
    (void)requester->send(request);
    return road == "fbauth" ? removal(request.address) : text;
}

static bool signal_is_confirmed(const Daemon &daemon, int seconds)
{
    const std::string confirmation =
        "received SIGUSR1, set log_level = 5"; // no lines of every request
    write_file(PELKIN_LEVEL_FILE, "5");
    const size_t before = system_log->count(confirmation);
    (void)kill(daemon.pid, SIGUSR1);
    return system_log->wait_for(confirmation, before + 1, seconds);
}

// Sends requests side by side; how many were done in that time, or until `ends`.
static int use_road(
    const Daemon &daemon, const std::string &road, int requests, int seconds,
    const std::function<bool()> &ends = [] { return false; })
{
    int done = 0;
    std::map<uint32_t, std::string> awaited;
    for (int i = 0; i < requests; i++) {
        number++;
        if (road == "signal") {
            done += signal_is_confirmed(daemon, seconds) ? 1 : 0;
        } else {
            awaited[number] = send_on(road);
        }
    }
    const auto take = [&](const Requester &socket) {
        for (auto came = socket.receive(0); came; came = socket.receive(0)) {
            done +=
                (int)std::erase_if(awaited, [&](const auto &one) { return one.second == *came; });
        }
    };
    (void)wait_until(
        [&] {
            take(*requester);
            take(*kivren);
            done += (int)std::erase_if(awaited, [&](const auto &one) {
                return road == "file" && read_file(file_of(one.first)) == one.second;
            });
            return awaited.empty() || ends();
        },
        road == "follow" ? seconds + 40 : seconds);
    return done;
}

// --- a daemon and its fault

struct Case {
    explicit Case(const std::string &name, const std::vector<std::string> &command = {"PELKIN"})
        : daemon((case_name = name, case_failed = false, system_log->clear(), command))
    {
        while (requester->receive(0) || kivren->receive(0)) {
        }
        // Before the main loop's first pass none is answered.
        expect(wait_until([&] { return use_road(daemon, "probe", 1, 1) == 1; }), "no start");
        expect(signal_is_confirmed(daemon, 10), "it logs nothing"); // and opens its way to the log
        bare_descriptors = count_descriptors(daemon.pid);
    }
    ~Case()
    {
        cases++;
        failed += case_failed ? 1 : 0;
        const std::vector<std::string> lines = system_log->all();
        for (size_t i = lines.size() - std::min<size_t>(case_failed ? 15 : 0, lines.size());
             i < lines.size(); i++) {
            std::fprintf(stderr, "    | %s", lines[i].c_str());
        }
        daemon.kill_now();
        std::filesystem::remove_all(DUMPS);
    }
    bool told(const std::string &text)
    {
        return system_log->count(text) > 0 || contains(daemon.error_text(), text);
    }
    void expect_served(const std::string &road, int seconds = 15)
    {
        expect(use_road(daemon, road, 1, seconds) == 1, "not served: " + road);
    }
    // A worker that lives has three descriptors, a thread and a semaphore set; of one that has
    // ended the record keeps a descriptor and the set. Whatever else is open has been lost.
    bool descriptors_add_up() const
    {
        const size_t workers = count_threads(daemon.pid) - 3;
        return count_descriptors(daemon.pid) ==
               bare_descriptors + 2 * workers + count_semaphore_sets();
    }
    // What must hold once the fault is gone.
    void expect_recovery(const std::string &road)
    {
        expect(daemon.alive(), "it has ended");
        for (const std::string &one : {road, std::string("new"), std::string("probe")}) {
            expect_served(one);
        }
        expect(wait_until([&] { return descriptors_add_up(); }, 12), "descriptors are lost");
        expect(std::filesystem::is_empty(DUMPS), "there is a crash dump");
    }
    // The daemon's threads come up in this order.
    std::string thread(const std::string &who) const
    {
        std::set<int> ids;
        for (const auto &task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(daemon.pid) + "/task")) {
            ids.insert(std::stoi(task.path().filename()));
        }
        const int place = who == "monitor" ? 1 : who == "follow" ? 2 : who == "worker" ? -1 : 0;
        return std::to_string(place < 0 ? *ids.rbegin() : *std::next(ids.begin(), place));
    }

    Daemon daemon;
    size_t bare_descriptors = 0;
};

/* The row's call fails in the row's thread as long as it lives. */
struct Tracer {
    Tracer(const Case &one, const Row &row, const std::string &when)
        : strace({"strace", "-p", one.thread(row.thread), "-o", TRACE,
                  row.thread == "all" ? "-f" : "-s8", "-e", "trace=" + calls_of(row.call), "-e",
                  "signal=none", "-e",
                  "inject=" + calls_of(row.call) + ":error=" + row.error + ":when=" + when},
                 false)
    {
        expect(wait_until([&] { return contains(strace.error_text(), "attached"); }, 10),
               "strace does not attach");
    }
    ~Tracer()
    {
        (void)kill(strace.pid, SIGINT);
        (void)strace.wait_for_end();
    }
    // The names under which a machine's kernel and C library know a call.
    static std::string calls_of(const std::string &call)
    {
        static const std::map<std::string, std::string> others = {
            {"select", "pselect6"}, {"poll", "ppoll"},    {"clone", "clone3"},    {"pipe", "pipe2"},
            {"open", "openat"},     {"mkdir", "mkdirat"}, {"semop", "semtimedop"}};
        const auto other = others.find(call);
        return other == others.end() ? call : "?" + call + ",?" + other->second;
    }
    static int injected()
    {
        const std::string trace = read_file(TRACE);
        int count = 0;
        for (size_t at = trace.find("(INJECTED)"); at != std::string::npos;
             at = trace.find("(INJECTED)", at + 1)) {
            count++;
        }
        return count;
    }
    Daemon strace;
};

static std::string run_requests(Case &one, const Row &row, const std::string &when)
{
    for (const std::string warmed : {"kept", "closing"}) {
        if (row.road.starts_with(warmed)) {
            one.expect_served(row.road);
        }
    }
    if (row.road == "file" || row.road == "fbauth") {
        one.expect_served("kept");
    }
    int done = 0;
    {
        const Tracer tracer(one, row, when);
        done = use_road(one.daemon, row.road, REQUESTS, row.road == "signal" ? 1 : 2);
        const int before = Tracer::injected();
        (void)usleep(500000); // the time is the case: what fails all the time must pause
        expect(Tracer::injected() - before <= 60, "it spins");
    }
    one.expect_recovery(row.road);
    return std::to_string(done) + "/" + std::to_string(REQUESTS);
}

// The fault meets the crash handler, which must end the process all the same.
static std::string run_crash(Case &one, const Row &row, const std::string &when)
{
    const Tracer tracer(one, row, when);
    (void)kill(one.daemon.pid, SIGSEGV);
    const int status = one.daemon.wait_for_end(10);
    std::error_code error;
    const auto size = std::filesystem::file_size(std::string(DUMPS) + "/pelkin.dump", error);
    expect(status == W_EXITCODE(255, 0) || status == W_EXITCODE(37, 0),
           "ended with wait status " + std::to_string(status));
    return status == W_EXITCODE(37, 0) || error ? "ends, no dump"
                                                : "ends, " + std::to_string(size) + " bytes";
}

static std::string run_row(const Row &row, uint32_t random)
{
    std::string line =
        "| " + row.call + " | " + row.error + " | " + row.thread + " | " + row.road + " |";
    bool was_said = row.said.empty();
    const std::string later = std::to_string(2 + random % 4);
    for (const std::string &when : {std::string("1"), std::string("3"), later, std::string("1+"),
                                    std::string("3+"), later + "+"}) {
        Case one(row.call + " " + row.error + ", " + row.thread + ", " + row.road +
                 ", when=" + when);
        std::string cell = (row.road == "crash" ? run_crash : run_requests)(one, row, when);
        was_said = was_said || one.told(row.said);
        if (Tracer::injected() == 0) {
            expect(!when.starts_with("1"), "the fault never came");
            cell = "not reached";
        }
        line += case_failed ? " FAILED |" : " " + cell + " |";
    }
    if (!was_said) {
        problem("nothing was said of it: " + row.said);
        failed++;
    }
    return line + (row.said.empty() ? "  |" : " \"" + row.said + "\" |");
}

// --- what runs short; each gives the rows of the second table

using Lines = std::vector<std::string>;

static std::vector<std::string> preloaded()
{
    *control = {};
    return {"env", std::string("LD_PRELOAD=") + std::getenv("PELKIN_FAULT_PRELOAD"), "PELKIN"};
}

// One request while allocations fail: whether it was served; else the daemon must say that it
// failed.
static bool starve(Case &one, const std::string &road, int first, int how_many)
{
    system_log->clear();
    control->made = 0;
    control->failing = how_many;
    control->first_failing = first;
    bool is_told = false;
    const bool is_served =
        use_road(one.daemon, road, 1, 15, [&] {
            for (const char *end : {"thread exit:", "Malloc", "cannot start", "Unable", "semctl"}) {
                is_told = is_told || one.told(end);
            }
            return is_told;
        }) == 1;
    control->first_failing = 0;
    expect(is_served || is_told,
           "allocation " + std::to_string(first) + ": neither done nor said to have failed");
    return is_served;
}

static std::string served_text(int served, int of)
{
    return " | " + std::to_string(served) + " served, " + std::to_string(of - served) +
           " said to have failed |";
}

// Each allocation of a daemon's very first request, at which the libraries set up what they keep.
static Lines starve_first()
{
    int made = 0;
    int served = 0;
    for (int first = 0; first <= made; first++) {
        Case one("memory, first, allocation " + std::to_string(first), preloaded());
        served += starve(one, "new", first, 1) && first > 0 ? 1 : 0;
        made = first == 0 ? control->made : made;
        expect(wait_until([&] { return one.descriptors_add_up(); }, 12), "descriptors are lost");
        if (first == made) {
            one.expect_recovery("new");
        }
    }
    return {"| memory, first: each of the first request's " + std::to_string(made) +
            " allocations fails, alone" + served_text(served, made)};
}

// Each allocation of a road's request fails, alone; every twentieth also with all that follow.
static Lines starve_road(const std::string &road)
{
    Case one("memory, " + road, preloaded());
    one.expect_served(road);
    (void)starve(one, road, 0, 0);
    const int made = control->made;
    int served = 0;
    int together = 0;
    int served_together = 0;
    for (int first = 1; first <= made; first++) {
        served += starve(one, road, first, 1) ? 1 : 0;
        if (first % 20 == 1) {
            together++;
            served_together += starve(one, road, first, 1000000) ? 1 : 0;
        }
    }
    one.expect_recovery(road);
    return {"| memory, " + road + ": each of a request's " + std::to_string(made) +
                " allocations fails, alone" + served_text(served, made),
            "| memory, " + road + ": " + std::to_string(together) +
                " of them fail with all that follow" + served_text(served_together, together)};
}

static Lines run_out_of_descriptors()
{
    Lines lines;
    for (rlim_t room = 0; room <= 3; room++) {
        Case one("descriptors: " + std::to_string(room) + " left");
        one.expect_served("kept");
        // A new worker takes three for good: its pipe's two and its socket.
        const rlimit few = {.rlim_cur = count_descriptors(one.daemon.pid) + room, .rlim_max = 4096};
        (void)prlimit(one.daemon.pid, RLIMIT_NOFILE, &few, nullptr);
        std::string outcome = use_road(one.daemon, "new", 1, 2) == 1 ? "served" : "";
        for (const std::string said :
             {"Unable to create pipe: Too many open files", "can't get \"tcp\" protocol entryn"}) {
            outcome = outcome.empty() && one.told(said) ? "not: \"" + said + "\"" : outcome;
        }
        expect(!outcome.empty(), "a new server is not served, and nothing is said");
        one.expect_served("kept", 5);
        const rlimit enough = {.rlim_cur = 1024, .rlim_max = 4096};
        (void)prlimit(one.daemon.pid, RLIMIT_NOFILE, &enough, nullptr);
        one.expect_recovery("new");
        lines.push_back("| descriptors: a limit of " + std::to_string(room) +
                        " more than are open | a new server is " + outcome +
                        "; established ones are served |");
    }
    return lines;
}

static void fill(const std::string &directory, const char *size)
{
    std::filesystem::create_directories(directory);
    (void)mount("tmpfs", directory.c_str(), "tmpfs", 0, size);
    (void)std::system(("cat /dev/zero >" + directory + "/full 2>/dev/null").c_str());
}

static Lines fill_disks()
{
    Case one("disk");
    fill("/run/answers", "size=64k");
    expect(use_road(one.daemon, "file", 1, 1) == 0, "a file on a full disk");
    expect(one.told("make directory failed:") || one.told("write fail."),
           "nothing was said of a full disk");
    std::filesystem::remove("/run/answers/full");
    one.expect_served("file");
    (void)umount("/run/answers");
    fill(DUMPS, "size=8k");
    (void)kill(one.daemon.pid, SIGSEGV);
    const int status = one.daemon.wait_for_end(10);
    expect(status == W_EXITCODE(37, 0) || status == W_EXITCODE(255, 0), "a crash on a full disk");
    (void)umount(DUMPS);
    return {
        "| disk of the answer's file: full | said; the next answer is written once there is room |",
        "| disk of the crash dumps: full | a crash ends the process with status " +
            std::to_string(WEXITSTATUS(status)) + " |"};
}

static Lines jump_clock()
{
    Lines lines;
    for (const int jump : {3600, -3600, 315360000, -315360000}) {
        Case one("clock jumps by " + std::to_string(jump) + " s", preloaded());
        one.expect_served("kept");
        control->clock_offset_s = jump;
        one.expect_served("kept");
        one.expect_served(
            "probe"); // the main loop has made a pass since: its mark is of the new time
        expect(count_threads(one.daemon.pid) == 4, "the worker has gone");
        lines.push_back("| clock: the wall time jumps by " + std::to_string(jump) +
                        " s | requests and probes are answered, workers stay |");
    }
    return lines;
}

// --- all of it

/* Of the rows in their order those that have all words, every `jobs`th. */
struct Chosen {
    bool next(const std::string &name)
    {
        for (const std::string &word : words) {
            if (!contains(" " + name + " ", " " + word + " ")) {
                return false;
            }
        }
        return ++row % jobs == job;
    }
    void write(const char *kind, const Lines &lines) const
    {
        for (const std::string &line : lines) {
            std::fprintf(results, "%d\t%s\t%s\n", row, kind, line.c_str());
            std::printf("%s\n", line.c_str());
        }
        (void)std::fflush(nullptr);
    }
    int job, jobs;
    FILE *results;
    std::vector<std::string> words;
    int row = 0;
};

static void map_control()
{
    static const char path[] = "/tmp/fault_control";
    write_file(path, std::string(sizeof *control, '\0'));
    (void)setenv("PELKIN_FAULT_CONTROL", path, 1);
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    control =
        (fault_control *)mmap(nullptr, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

static void run_all(Chosen &chosen)
{
    std::minstd_rand random(seed());
    for (const Row &row : matrix) {
        const auto luck = (uint32_t)random();
        if (chosen.next(row.call + " " + row.error + " " + row.thread + " " + row.road)) {
            chosen.write("matrix", {run_row(row, luck)});
        }
    }
    if (chosen.next("memory first")) {
        chosen.write("shortage", starve_first());
    }
    for (const std::string road :
         {"kept", "kept-tls", "closing-tls", "new", "new-tls", "file", "fbauth"}) {
        if (chosen.next("memory " + road)) {
            chosen.write("shortage", starve_road(road));
        }
    }
    const std::pair<const char *, Lines (*)()> others[] = {
        {"descriptors", run_out_of_descriptors}, {"disk", fill_disks}, {"clock", jump_clock}};
    for (const auto &[name, run] : others) {
        if (chosen.next(name)) {
            chosen.write("shortage", run());
        }
    }
    chosen.write("cases", {std::to_string(cases) + "\t" + std::to_string(failed)});
}

// JOB JOBS RESULTS [WORD...]
int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    Chosen chosen = {
        std::atoi(argv[1]), std::atoi(argv[2]), std::fopen(argv[3], "w"), {argv + 4, argv + argc}};
    write_file("/etc/hosts", read_file("/etc/hosts") + "127.5.0.1 " PELKIN_WECHAT_API_HOST "\n");
    std::filesystem::create_directories("/run/answers");
    map_control();
    // The evidence is the system log, whose sender waits; a log service makes it a usual device.
    const LogSink service;
    SyslogSink log;
    const Server plain({.address = "0.0.0.0"}, serve);
    const Server tls({.address = "0.0.0.0", .tls = true}, serve);
    Requester module;
    Requester manager(KIVREN_SOCKET_PATH);
    system_log = &log;
    requester = &module;
    kivren = &manager;
    run_all(chosen);
    return failed == 0 && !testing::UnitTest::GetInstance()->Failed() ? 0 : 1;
}
