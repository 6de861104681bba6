// The scripted servers: what each does with a connection and a request.
#include <poll.h>
#include <sys/socket.h>

#include "tests/soak/soak.h"

namespace soak
{

static const int BEYOND_PATIENCE_MS = 10700; // the daemon waits ten seconds for bytes
static const size_t NAMED = 8;               // of a body: as much as tells whose it is
static const size_t ONE_RECORD = 8000;       // goes out in one segment and in one TLS record

// Looks like an answer: whoever takes it for one is found out.
static const char BEHIND_THE_END[] = "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nSTRAY";

enum class Says { ALL, PART, NO_BLANK_LINE, NOTHING };
enum class Then { KEEP, CLOSE, RESET, STALL };
enum class Manner { PLAIN, LATE, IN_PIECES, NO_LENGTH, EXTRA_BYTES };
struct Behaviour {
    uint32_t share; // of 10,000
    Says says = Says::ALL;
    Then then = Then::KEEP;
    Manner manner = Manner::PLAIN;
};

const std::vector<Target> &targets()
{
    static const std::vector<Target> all = [] {
        std::vector<Target> made;
        for (size_t i = 0; i < API; i++) {
            const std::string number = std::to_string(i + 1);
            const std::string address = "127.40.0." + number;
            const bool tls = i % 2 == 1;
            const Temper temper = i % 3 == 0 ? Temper::FAITHFUL : Temper::FICKLE;
            made.push_back({tls ? "server-" + number + ".soak" : address, address, tls,
                            i < 2 ? Temper::SLOW : temper});
        }
        made.push_back({PELKIN_WECHAT_API_HOST, "127.44.0.1", true, Temper::FICKLE});
        made.push_back({"127.77.0.1", "", false, Temper::ABSENT});
        made.push_back({"127.77.0.2", "", true, Temper::ABSENT});
        made.push_back({"no.such.host.invalid", "", false, Temper::ABSENT});
        return made;
    }();
    return all;
}

static const Behaviour &draw_behaviour(size_t target, uint32_t luck)
{
    static const Behaviour slow = {.share = 10000, .manner = Manner::LATE};
    static const Behaviour rows[] = {
        {.share = 5000},
        {.share = 800, .manner = Manner::LATE},
        {.share = 800, .manner = Manner::IN_PIECES},
        {.share = 600, .manner = Manner::EXTRA_BYTES},
        {.share = 700, .then = Then::CLOSE},
        {.share = 600, .then = Then::CLOSE, .manner = Manner::NO_LENGTH},
        {.share = 400, .says = Says::PART, .then = Then::CLOSE},
        {.share = 270, .says = Says::PART, .then = Then::RESET},
        {.share = 30, .says = Says::PART, .then = Then::STALL},
        {.share = 500, .says = Says::NOTHING, .then = Then::CLOSE},
        {.share = 270, .says = Says::NOTHING, .then = Then::RESET},
        {.share = 15, .says = Says::NOTHING, .then = Then::STALL},
        {.share = 15, .says = Says::NO_BLANK_LINE, .then = Then::CLOSE}};
    const uint32_t faithful = 8500; // the shares of the first six rows
    const Temper temper = targets()[target].temper;
    return temper == Temper::SLOW
               ? slow
               : pick(rows, luck % (temper == Temper::FAITHFUL ? faithful : 10000));
}

// Waits; ends early when either side has shut the connection down.
static void pause_or_cut(int fd, uint32_t milliseconds)
{
    pollfd watched = {.fd = fd, .events = POLLRDHUP, .revents = 0};
    (void)poll(&watched, 1, (int)milliseconds);
}

// False when the connection is to be closed.
static bool say(support::Connection &connection, const Behaviour &how, uint32_t luck,
                const Answer &answer, uint32_t pause_ms)
{
    const auto &[head, body] = answer;
    const size_t rest = body.size() > NAMED ? NAMED + luck % (body.size() - NAMED) : 0;
    const size_t sizes[] = {head.size() + body.size(), head.size() + rest, head.size() - 2, 0};
    const std::string whole = head + body;
    const std::string said = whole.substr(0, sizes[(size_t)how.says]);
    const bool has_extra = how.manner == Manner::EXTRA_BYTES && whole.size() < ONE_RECORD;
    // Pieces begin within the head and within the body.
    const size_t ends[] = {luck % head.size(), head.size() + rest, said.size()};
    if (how.manner == Manner::LATE) {
        pause_or_cut(connection.fd, pause_ms);
    }
    for (size_t at = 0, piece = 0; at < said.size(); piece++) {
        const size_t end = how.manner == Manner::IN_PIECES ? ends[piece] : said.size();
        if (!connection.send(said.substr(at, end - at) + (has_extra ? BEHIND_THE_END : ""))) {
            return false;
        }
        if (end < said.size()) {
            pause_or_cut(connection.fd, pause_ms);
        }
        at = end;
    }
    if (how.then == Then::RESET) {
        pause_or_cut(connection.fd, pause_ms);
        connection.reset();
    } else if (how.then == Then::STALL) {
        pause_or_cut(connection.fd, BEYOND_PATIENCE_MS);
        return connection.send(whole.substr(said.size()));
    }
    return how.then == Then::KEEP;
}

// A token, some of which serve for a single check; or who follows.
static Answer answer_api(const std::string &request, uint32_t luck, bool has_length, bool is_cut)
{
    static const std::string key = "{\"openid\": \"o";
    std::string body = std::string(R"({"access_token":"token","expires_in":)") +
                       (luck % 3 == 0 ? "600}" : "7200}");
    if (request.find("/cgi-bin/token?") == std::string::npos) {
        std::string entries;
        for (size_t at = request.find(key); at != std::string::npos;
             at = request.find(key, at + 1)) {
            const uint32_t number = number_behind(request.substr(at), key);
            const std::optional<Answer> entry = ask(API, number, "", has_length, is_cut);
            entries += (entries.empty() ? "" : ",") + (entry ? entry->body : "");
        }
        body = "{\"user_info_list\":[" + entries + "]}";
    }
    return {head_of(0, has_length ? std::optional(body.size()) : std::nullopt), body};
}

static void serve(size_t target, support::Connection &connection)
{
    static std::atomic<uint32_t> requests{0};
    for (std::string request = connection.read_request(); !request.empty();
         request = connection.read_request()) {
        const uint32_t luck = mixed(++requests);
        const Behaviour &how = draw_behaviour(target, luck);
        const bool has_length = how.manner != Manner::NO_LENGTH;
        const bool is_cut = how.says == Says::PART;
        const std::optional<Answer> answer =
            target == API
                ? answer_api(request, luck, has_length, is_cut)
                : ask(target, number_behind(request, " /r/"), request, has_length, is_cut);
        // One pause in ten makes others wait.
        const bool is_slow = targets()[target].temper == Temper::SLOW;
        const uint32_t most_ms = is_slow ? 60 : luck % 10 == 0 ? 1500 : 100;
        if (!answer || !say(connection, how, luck, *answer, 5 + luck / 16 % most_ms)) {
            return;
        }
    }
}

// Now and then a TLS handshake waits, or comes to nothing.
static bool admit(size_t target, int fd)
{
    static std::atomic<uint32_t> handshakes{0};
    const uint32_t luck = mixed(1ull << 32 | ++handshakes);
    const uint32_t one = targets()[target].temper == Temper::FICKLE ? luck % 1000 : 1000;
    if (one < 5) {
        pause_or_cut(fd, 100 + luck / 1000 % (one == 0 ? 15000 : 1000));
    } else if (one < 10) {
        (void)send(fd, "no TLS here\r\n", 13, MSG_NOSIGNAL);
    }
    return one < 5 || one >= 15;
}

static std::unique_ptr<support::Server> start(size_t target)
{
    return std::make_unique<support::Server>(
        support::ServerOptions{.address = targets()[target].address,
                               .tls = targets()[target].tls,
                               .before_handshake = [target](int fd) { return admit(target, fd); }},
        [target](support::Connection &connection) { serve(target, connection); });
}

Servers start_servers()
{
    Servers servers(targets().size());
    for (size_t i = 0; i < targets().size(); i++) {
        if (targets()[i].temper != Temper::ABSENT) {
            servers[i] = start(i);
        }
    }
    return servers;
}

// It stops listening, cuts everything and comes back after a while.
void restart_server(Servers &servers, size_t target, uint32_t pause_ms,
                    const std::stop_token &ending)
{
    note_down(target);
    servers[target]->stop();
    note_down(target); // the last of its answers may have ended only now
    rest(ending, pause_ms);
    servers[target] = start(target);
    count("servers restarted");
}

} // namespace soak
