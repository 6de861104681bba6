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
static const struct Behaviour {
    uint32_t share; // of 10,000
    Says says;
    Then then;
    Manner manner;
} behaviours[] = {{5000, Says::ALL, Then::KEEP, Manner::PLAIN},
                  {800, Says::ALL, Then::KEEP, Manner::LATE},
                  {800, Says::ALL, Then::KEEP, Manner::IN_PIECES},
                  {600, Says::ALL, Then::KEEP, Manner::EXTRA_BYTES},
                  {700, Says::ALL, Then::CLOSE, Manner::PLAIN},
                  {600, Says::ALL, Then::CLOSE, Manner::NO_LENGTH},
                  {400, Says::PART, Then::CLOSE, Manner::PLAIN},
                  {270, Says::PART, Then::RESET, Manner::PLAIN},
                  {30, Says::PART, Then::STALL, Manner::PLAIN},
                  {500, Says::NOTHING, Then::CLOSE, Manner::PLAIN},
                  {270, Says::NOTHING, Then::RESET, Manner::PLAIN},
                  {15, Says::NOTHING, Then::STALL, Manner::PLAIN},
                  {15, Says::NO_BLANK_LINE, Then::CLOSE, Manner::PLAIN}};
static const uint32_t FAITHFUL_SHARE = 8500; // of the first six

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
        made.push_back({PELKIN_WECHAT_API_HOST, "127.44.0.1", true, Temper::FAITHFUL});
        made.push_back({"127.77.0.1", "", false, Temper::ABSENT});
        made.push_back({"no.such.host.invalid", "", true, Temper::ABSENT});
        return made;
    }();
    return all;
}

bool is_faithful(size_t target)
{
    const Temper temper = targets()[target].temper;
    return temper == Temper::FAITHFUL || temper == Temper::SLOW;
}

// Waits; ends early when either side has shut the connection down.
static void pause_or_cut(int fd, uint32_t milliseconds)
{
    pollfd watched = {.fd = fd, .events = POLLRDHUP, .revents = 0};
    (void)poll(&watched, 1, (int)milliseconds);
}

// False when the connection is to be closed.
static bool say(support::Connection &connection, const Behaviour &how, uint32_t luck,
                const std::string &head, const std::string &body, uint32_t pause_ms)
{
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
        pause_or_cut(connection.fd, end < said.size() ? pause_ms : 0);
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
static std::string answer_api(const std::string &request, uint32_t luck)
{
    static const std::string key = "{\"openid\": \"o";
    if (request.find("/cgi-bin/token?") != std::string::npos) {
        return std::string(R"({"access_token":"token","expires_in":)") +
               (luck % 3 == 0 ? "600}" : "7200}");
    }
    std::string body = "{\"user_info_list\":[";
    for (size_t at = request.find(key); at != std::string::npos; at = request.find(key, at + 1)) {
        const uint32_t number = number_behind(request.substr(at), key);
        body += body.ends_with('[') ? "" : ",";
        body += note_asked(API, number, "", true).value_or("");
    }
    return body + "]}";
}

static void serve(size_t target, support::Connection &connection)
{
    static std::atomic<uint32_t> requests{0};
    const bool is_slow = targets()[target].temper == Temper::SLOW;
    for (std::string request = connection.read_request(); !request.empty();
         request = connection.read_request()) {
        const uint32_t luck = mixed(++requests);
        const Behaviour &how =
            is_slow ? behaviours[1]
                    : pick(behaviours, luck % (is_faithful(target) ? FAITHFUL_SHARE : 10000));
        const bool has_length = how.manner != Manner::NO_LENGTH;
        const uint32_t number = number_behind(request, " /r/");
        const std::optional<std::string> body =
            target == API ? answer_api(request, luck)
                          : note_asked(target, number, request, has_length);
        // One pause in ten makes others wait.
        const uint32_t most_ms = is_slow ? 60 : luck % 10 == 0 ? 1500 : 100;
        if (!body || !say(connection, how, luck,
                          head_of(number, has_length ? std::optional(body->size()) : std::nullopt),
                          *body, 5 + luck / 16 % most_ms)) {
            return;
        }
    }
}

// Now and then a TLS handshake waits, or comes to nothing.
static bool admit(size_t target, int fd)
{
    static std::atomic<uint32_t> handshakes{0};
    const uint32_t luck = mixed(1ull << 32 | ++handshakes);
    const uint32_t one = is_faithful(target) ? 1000 : luck % 1000;
    if (one < 5) {
        pause_or_cut(fd, 100 + luck / 1000 % (one == 0 ? 15000 : 1000));
    } else if (one < 10) {
        (void)send(fd, "no TLS here\r\n", 13, MSG_NOSIGNAL);
    }
    return one < 5 || one >= 15;
}

void start_server(Servers &servers, size_t target)
{
    servers[target] = std::make_unique<support::Server>(
        support::ServerOptions{.address = targets()[target].address,
                               .tls = targets()[target].tls,
                               .before_handshake = [target](int fd) { return admit(target, fd); }},
        [target](support::Connection &connection) { serve(target, connection); });
}

} // namespace soak
