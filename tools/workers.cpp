#include "tools/workers.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <functional>
#include <map>
#include <netdb.h>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/daemon_process.h"
#include "tools/printable.h"

static const size_t NAME_LONGEST = 15; // prctl(2), PR_SET_NAME

struct connection {
    uint32_t address; // network byte order, as the kernel prints it
    uint16_t port;
    uint64_t in_flight;
};

static std::vector<std::string> entries_of(const std::string &path)
{
    std::vector<std::string> names;
    DIR *directory = opendir(path.c_str());
    while (const dirent *entry = directory != nullptr ? readdir(directory) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return names;
}

// What the links of the daemon's descriptors lead to: "socket:[N]" and the like.
static std::set<std::string> descriptors_of(pid_t pid)
{
    std::set<std::string> targets;
    const std::string directory = proc_path(pid, "fd/");
    for (const std::string &entry : entries_of(directory)) {
        char target[64];
        const ssize_t length =
            readlink(std::string(directory).append(entry).c_str(), target, sizeof target);
        if (length > 0) {
            targets.insert(std::string(target, (size_t)length));
        }
    }
    return targets;
}

// Of the daemon's network, those to a server that a descriptor of its holds: proc_net_tcp.
static std::vector<connection> connections_of(pid_t pid)
{
    const std::set<std::string> own = descriptors_of(pid);
    std::vector<connection> found;
    std::istringstream table(read_text(proc_path(pid, "net/tcp")).value_or(""));
    std::string line;
    while (std::getline(table, line)) {
        unsigned address = 0;
        unsigned port = 0;
        unsigned unsent = 0;
        unsigned unread = 0;
        unsigned long long inode = 0;
        if (std::sscanf(line.c_str(), "%*d: %*8x:%*4x %8x:%4x %*2x %8x:%8x %*s %*s %*u %*u %llu",
                        &address, &port, &unsent, &unread, &inode) == 5 &&
            (port == 80 || port == 443) &&
            own.count("socket:[" + std::to_string(inode) + "]") != 0) {
            found.push_back({address, (uint16_t)port, (uint64_t)unsent + unread});
        }
    }
    return found;
}

static std::string first_line(const std::string &path)
{
    const std::string text = read_text(path).value_or("");
    return text.substr(0, text.find('\n'));
}

// By what the thread sleeps in, where the kernel tells.
static std::string state_text(char state, const std::string &sleeps_in)
{
    static const struct {
        const char *part;
        const char *state;
    } SLEEPS[] = {{"pipe", "idle"}, {"connect", "connecting"}, {"poll", "waiting"}};
    if (state == 'R') {
        return "running";
    }
    for (const auto &one : SLEEPS) {
        if (sleeps_in.find(one.part) != std::string::npos) {
            return one.state;
        }
    }
    return state == 'D' ? "blocked" : "sleeping";
}

struct thread_view {
    uint64_t started; // in clock ticks since the system's start
    worker_view worker;
};

// Fields 3, 14, 15 and 22 of proc_pid_stat(5). The name in brackets may hold anything.
static std::optional<thread_view> read_thread(pid_t pid, const std::string &id, double uptime_s)
{
    const std::string directory = proc_path(pid, "task/" + id);
    const std::string stat = read_text(directory + "/stat").value_or("");
    const size_t name_end = stat.rfind(')');
    char state = 0;
    unsigned long user = 0;
    unsigned long system = 0;
    unsigned long long started = 0;
    if (name_end == std::string::npos ||
        std::sscanf(stat.c_str() + name_end + 1,
                    " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %*d %*d "
                    "%llu",
                    &state, &user, &system, &started) != 4) {
        return std::nullopt;
    }
    const double hertz = (double)sysconf(_SC_CLK_TCK);
    return thread_view{.started = started,
                       .worker = {.server = first_line(directory + "/comm"),
                                  .state = state_text(state, first_line(directory + "/wchan")),
                                  .age_s = std::max(0.0, uptime_s - (double)started / hertz),
                                  .cpu_s = (double)(user + system) / hertz,
                                  .port = std::nullopt,
                                  .in_flight = std::nullopt}};
}

// All but the main thread and the first of each of the daemon's own names: a host may be called so.
static std::vector<worker_view> worker_threads(pid_t pid)
{
    const double uptime_s = std::atof(first_line("/proc/uptime").c_str());
    std::vector<thread_view> threads;
    for (const std::string &id : entries_of(proc_path(pid, "task"))) {
        if (id != std::to_string(pid)) {
            if (const std::optional<thread_view> one = read_thread(pid, id, uptime_s)) {
                threads.push_back(*one);
            }
        }
    }
    std::stable_sort(threads.begin(), threads.end(), [](const auto &one, const auto &other) {
        return one.started < other.started;
    });
    std::set<std::string> own = {"vokmon", "wechat"};
    std::vector<worker_view> workers;
    for (const thread_view &one : threads) {
        if (own.erase(one.worker.server) == 0) {
            workers.push_back(one.worker);
        }
    }
    return workers;
}

// Asked once a name. None for a name that is cut, or that leads to nothing.
static const std::set<uint32_t> &addresses_of(const std::string &host)
{
    static std::map<std::string, std::set<uint32_t>> known;
    const auto [place, is_new] = known.try_emplace(host);
    addrinfo wanted = {};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *all = nullptr;
    if (is_new && host.size() < NAME_LONGEST &&
        getaddrinfo(host.c_str(), nullptr, &wanted, &all) == 0) {
        for (const addrinfo *one = all; one != nullptr; one = one->ai_next) {
            place->second.insert(((const sockaddr_in *)one->ai_addr)->sin_addr.s_addr);
        }
        freeaddrinfo(all);
    }
    return place->second;
}

// Takes the connection away when it is certainly this worker's: the only one to its server. Of
// several to one port the port is known, of several to both ports nothing.
static void join(worker_view *worker, std::vector<connection> *free,
                 const std::function<bool(const connection &)> &fits)
{
    const auto first = std::find_if(free->begin(), free->end(), fits);
    if (first == free->end()) {
        return;
    }
    const bool is_only = std::count_if(free->begin(), free->end(), fits) == 1;
    if (is_only || std::all_of(free->begin(), free->end(), [&](const connection &one) {
            return !fits(one) || one.port == first->port;
        })) {
        worker->port = first->port;
    }
    if (is_only) {
        worker->in_flight = first->in_flight;
        free->erase(first);
    }
}

std::vector<worker_view> read_workers(pid_t pid)
{
    std::vector<worker_view> workers = worker_threads(pid);
    std::vector<connection> free = connections_of(pid);
    for (worker_view &worker : workers) {
        const std::set<uint32_t> &addresses = addresses_of(worker.server);
        join(&worker, &free,
             [&](const connection &one) { return addresses.count(one.address) != 0; });
    }
    std::vector<worker_view *> unknown;
    for (worker_view &worker : workers) {
        if (!worker.in_flight) {
            unknown.push_back(&worker);
        }
    }
    if (unknown.size() == 1) {
        join(unknown[0], &free, [](const connection &) { return true; });
    }
    return workers;
}

bool has_worker(pid_t pid, const std::string &host)
{
    const std::vector<worker_view> workers = worker_threads(pid);
    return std::any_of(workers.begin(), workers.end(), [&](const worker_view &one) {
        return one.server == host.substr(0, NAME_LONGEST);
    });
}

std::string workers_text(const std::vector<worker_view> &workers)
{
    std::string text = "SERVER              PORT  STATE             AGE       CPU   IN FLIGHT\n";
    for (const worker_view &worker : workers) {
        const std::string server =
            printable(worker.server) + (worker.server.size() < NAME_LONGEST ? "" : "...");
        char line[160];
        std::snprintf(line, sizeof line, "%-18s  %4s  %-10s %8.0f s  %6.2f s  %10s\n",
                      server.c_str(), worker.port ? std::to_string(*worker.port).c_str() : "?",
                      worker.state.c_str(), worker.age_s, worker.cpu_s,
                      worker.in_flight ? std::to_string(*worker.in_flight).c_str() : "?");
        text += line;
    }
    return text;
}

std::string workers_json(const std::vector<worker_view> &workers)
{
    std::string text = "[";
    for (const worker_view &worker : workers) {
        char times[80];
        std::snprintf(times, sizeof times, ",\"age_s\":%.2f,\"cpu_s\":%.2f", worker.age_s,
                      worker.cpu_s);
        text += text.size() > 1 ? ",{" : "{";
        text += "\"server\":" + json_text(worker.server) +
                ",\"cut\":" + (worker.server.size() < NAME_LONGEST ? "false" : "true") +
                ",\"port\":" + (worker.port ? std::to_string(*worker.port) : "null") +
                ",\"state\":" + json_text(worker.state) + times + ",\"in_flight\":" +
                (worker.in_flight ? std::to_string(*worker.in_flight) : "null") + "}";
    }
    return text + "]";
}
