#include "tests/soak/servers.h"

#include <random>
#include <sys/socket.h>

#include "tests/soak/pause.h"
#include "tests/support/wait.h"

namespace soak
{

static const int BEYOND_PATIENCE_MS = 10700; // the daemon waits ten seconds for bytes
static const size_t CUT_AT_LEAST = 18;       // of a body: as much as tells whose it is

// Looks like an answer: whoever takes it for one is found out.
static const char BEHIND_THE_END[] = "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nSTRAY";

static int short_pause_ms(const Plan &plan)
{
    const bool is_slow = targets()[plan.target].temper == Temper::SLOW;
    // One in ten makes others wait.
    const uint32_t most = is_slow ? 60 : draw(plan.number, "long pause", 10) == 0 ? 1500 : 100;
    return 5 + (int)draw(plan.number, "pause", most);
}

static void send_in_pieces(support::Connection &connection, const Plan &plan,
                           const std::string &whole)
{
    const size_t pieces = 2 + draw(plan.number, "pieces", 6);
    const size_t size = whole.size() / pieces + 1;
    for (size_t at = 0; at < whole.size(); at += size) {
        if (at > 0) {
            pause_or_cut(connection.fd, short_pause_ms(plan) / 4);
        }
        if (!connection.send(std::string_view(whole).substr(at, size))) {
            return;
        }
    }
}

static void cut(support::Connection &connection, const Plan &plan, Behaviour behaviour,
                const Answer &answer)
{
    const auto rest = (uint32_t)(answer.body.size() - CUT_AT_LEAST);
    const size_t size = answer.head.size() + CUT_AT_LEAST + draw(plan.number, "cut", rest);
    const std::string whole = answer.head + answer.body;
    if (!connection.send(std::string_view(whole).substr(0, size))) {
        return;
    }
    if (behaviour == Behaviour::CUT_SILENCE) {
        pause_or_cut(connection.fd, BEYOND_PATIENCE_MS);
        (void)connection.send(std::string_view(whole).substr(size));
    } else if (behaviour == Behaviour::CUT_RESET) {
        pause_or_cut(connection.fd, short_pause_ms(plan));
        connection.reset();
    }
}

// Says it all, or fails. False when the connection is to be closed.
static bool behave(support::Connection &connection, const Plan &plan, int attempt)
{
    const Behaviour behaviour = behaviour_of(plan, attempt);
    const Answer answer = answer_of(plan, attempt);
    const std::string whole = answer.head + answer.body;
    switch (behaviour) {
    case Behaviour::LATE:
        pause_or_cut(connection.fd, short_pause_ms(plan));
        return connection.send(whole);
    case Behaviour::IN_PIECES:
        send_in_pieces(connection, plan, whole);
        return true;
    case Behaviour::WHOLE:
        return connection.send(whole);
    case Behaviour::CLOSE_AFTER:
    case Behaviour::NO_LENGTH:
        (void)connection.send(whole);
        return false;
    case Behaviour::EXTRA_BYTES:
        return connection.send(whole + BEHIND_THE_END);
    case Behaviour::CUT_CLOSE:
    case Behaviour::CUT_RESET:
    case Behaviour::CUT_SILENCE:
        cut(connection, plan, behaviour, answer);
        return behaviour == Behaviour::CUT_SILENCE;
    case Behaviour::MUTE_CLOSE:
        return false;
    case Behaviour::MUTE_RESET:
        connection.reset();
        return false;
    case Behaviour::MUTE_SILENCE:
        pause_or_cut(connection.fd, BEYOND_PATIENCE_MS);
        return connection.send(whole);
    case Behaviour::NO_BLANK_LINE:
        (void)connection.send(std::string_view(answer.head).substr(0, answer.head.size() - 2));
        return false;
    }
    return false;
}

static void serve(Ledger *ledger, size_t target, support::Connection &connection)
{
    for (std::string request = connection.read_request(); !request.empty();
         request = connection.read_request()) {
        const int attempt = ledger->ask(target, request);
        if (attempt == 0) {
            return;
        }
        const uint32_t number = number_in(request.substr(request.find("/r/") + 3, 8));
        if (!behave(connection, plan_request(number, target), attempt)) {
            return;
        }
    }
}

// Now and then a handshake waits, or comes to nothing.
static bool admit(Ledger *ledger, size_t target, int fd)
{
    static std::atomic<uint32_t> connections{0};
    const uint32_t number = ++connections;
    if (targets()[target].temper == Temper::SLOW) {
        return true;
    }
    const uint32_t one = draw(number, "handshake", 1000);
    if (one < 5) {
        pause_or_cut(fd, 100 + (int)draw(number, "handshake pause", one == 0 ? 15000 : 1000));
        return true;
    }
    if (one < 15) {
        ledger->note_trouble(target);
        if (one < 10) {
            (void)send(fd, "no TLS here\r\n", 13, MSG_NOSIGNAL);
        }
        return false;
    }
    return true;
}

static std::unique_ptr<support::Server> start(Ledger *ledger, size_t target)
{
    return std::make_unique<support::Server>(
        support::ServerOptions{
            .address = targets()[target].address,
            .tls = targets()[target].tls,
            .before_handshake = [ledger, target](int fd) { return admit(ledger, target, fd); }},
        [ledger, target](support::Connection &connection) { serve(ledger, target, connection); });
}

static void wait_for_end_or(const std::atomic<bool> &is_ending, uint32_t milliseconds)
{
    for (uint32_t waited = 0; waited < milliseconds && !is_ending; waited += 20) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// A fickle server stops listening, cuts everything and comes back after a while.
static void restart_servers(Servers *all)
{
    std::minstd_rand random(support::seed());
    while (!all->is_ending) {
        wait_for_end_or(all->is_ending, 500 + (uint32_t)random() % 5000);
        const size_t target = random() % targets().size();
        if (targets()[target].temper != Temper::FICKLE || all->is_ending) {
            continue;
        }
        all->ledger->note_down(target);
        all->servers[target]->stop();
        all->ledger->note_down(target); // the last of its answers may have ended only now
        wait_for_end_or(all->is_ending, (uint32_t)random() % 3000);
        all->servers[target] = start(all->ledger, target);
        all->ledger->note_trouble(target);
        all->restarts++;
    }
}

Servers::Servers(Ledger *with_ledger) : ledger(with_ledger), servers(targets().size())
{
    for (size_t i = 0; i < targets().size(); i++) {
        if (targets()[i].temper != Temper::ABSENT) {
            servers[i] = start(ledger, i);
        }
    }
    restarter = std::thread(restart_servers, this);
}

void Servers::end_restarts()
{
    is_ending = true;
    restarter.join();
}

Servers::~Servers()
{
    if (restarter.joinable()) {
        end_restarts();
    }
}

} // namespace soak
