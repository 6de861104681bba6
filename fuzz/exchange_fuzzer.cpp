// Exchanges over one connection with a server that the input scripts, plain and over TLS. An input
// is a scheme and a buffer size (8 bits), then the script's blocks: what happens around the answer
// (three times 8 bits, see take_block()), the number of its piece descriptions and they themselves
// (8 bits each), the answer (length in 16 bits, bytes). Everything is carried out twice, as the
// script cuts the answers and with each of them in one piece.
#include <algorithm>
#include <memory>
#include <string.h>

#include "fuzz/harness.h"
#include "fuzz/scripted_server.h"
#include "http/exchange.h"

// The last one, which is slow, is taken least often.
static const int32_t sizes[] = {PELKIN_MSG_MAX, 2, 5, 16, 64, 256, 1024, 4096, 300000};
static const size_t LARGEST = sizeof sizes / sizeof *sizes - 1;
static const int BLOCKS_MAX = 16;
static const int ATTEMPTS_MAX = 1 + PELKIN_HTTP_RETRIES;

struct result {
    bool is_answer;
    std::string body;
    bool depends_on_cut;
};

// Five bits of the description are the length; what no description covers is one piece.
static std::vector<piece> cut_into_pieces(const std::string &descriptions, size_t length)
{
    std::vector<piece> pieces;
    for (const char character : descriptions) {
        const auto code = (uint8_t)character;
        const size_t wanted = code % 32 < 16 ? code % 32 : (size_t)1 << (code % 32 - 12);
        const size_t taken = std::min(wanted, length);
        if (taken > 0) {
            pieces.push_back({taken, (code >> 5 & 3) % 3 != 0});
            length -= taken;
        }
    }
    if (length > 0) {
        pieces.push_back({length, false});
    }
    return pieces;
}

// An answer may be made about as long as the buffer: 3 bytes more to 3 bytes less.
static std::string fill_up(std::string answer, uint8_t how, size_t size)
{
    if (how >= 1 && how <= 7) {
        answer.resize(std::max(answer.size(), size + 4 - std::min<size_t>(how, size)), 'f');
    }
    return answer;
}

static script_block take_block(struct input *input, size_t size)
{
    script_block block = {};
    const uint8_t before = take_byte(input);
    const uint8_t after = take_byte(input);
    block.before = (enum before_request)(before % 16 < BEFORE_COUNT ? before % 16 : BEFORE_QUIET);
    block.refuses_connection = before / 16 == 1;
    block.end = (enum answer_end)(after % END_COUNT);
    const uint8_t filling = take_byte(input);
    const std::string descriptions = take_bytes(input, take_byte(input));
    block.answer = fill_up(take_bytes(input, take_word(input)), filling, size);
    block.pieces = cut_into_pieces(descriptions, block.answer.size());
    return block;
}

// Nothing lies behind the buffer, so that the sanitizer sees every byte too far.
static char *provide_buffer(size_t which)
{
    static std::unique_ptr<char[]> buffers[sizeof sizes / sizeof *sizes];
    if (buffers[which] == nullptr) {
        buffers[which] = std::make_unique<char[]>((size_t)sizes[which]);
    }
    memset(buffers[which].get(), 'x', (size_t)sizes[which]);
    return buffers[which].get();
}

static result check_answer(int32_t rc, const char *buffer, int32_t length, size_t size)
{
    const model_answer expected =
        server.answered != nullptr ? model_answer_of(server.answered, size) : model_answer{};
    require((rc == 0) == (expected.is_answer && expected.is_cut_off), "whether there is an answer");
    if (!expected.is_answer) {
        require(server.attempts == ATTEMPTS_MAX || server.is_refused,
                "a failed request is repeated");
        return {};
    }
    require(server.is_connected == expected.is_clean,
            "the connection stays open behind an answer that ended as announced, and only then");
    if (rc != 0) {
        require(length == 0, "an answer without a blank line is none");
        return {false, "", expected.depends_on_cut};
    }
    require(length > 0 && (size_t)length < size && buffer[length] == '\0', "the length");
    require(expected.body == std::string(buffer, (size_t)length), "the body");
    return {true, std::string(expected.body), expected.depends_on_cut};
}

static std::vector<result> carry_out(const std::vector<script_block> &script, bool is_https,
                                     size_t which)
{
    static uint64_t tls_object; // that only the wrapped functions touch
    SSL *const tls = reinterpret_cast<SSL *>(&tls_object);
    static struct http_task task;
    task.host[0] = 'h';
    task.path[0] = '/';
    task.is_https = is_https ? 1 : 0;
    std::vector<result> results;
    server = {};
    server.script = &script;
    int32_t sock = server_open();
    while (server_has_more()) {
        char *buffer = provide_buffer(which);
        int32_t length = 0;
        server.attempts = 0;
        server.is_refused = false;
        server.answered = nullptr;
        const int32_t rc = _pelkin_send_recv(&sock, is_https ? tls : nullptr, &task, buffer,
                                             sizes[which], &length);
        require(server.attempts <= ATTEMPTS_MAX, "the number of attempts");
        results.push_back(check_answer(rc, buffer, length, (size_t)sizes[which]));
        if (rc != 0) {
            sock = server_open(); // as the next worker does
        }
    }
    return results;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct input input = {data, size};
    const uint8_t setting = take_byte(&input);
    const size_t which = setting >= 0xF0 ? LARGEST : setting % LARGEST;
    std::vector<script_block> script;
    for (int i = 0; i < BLOCKS_MAX && input.size > 0; i++) {
        script.push_back(take_block(&input, (size_t)sizes[which]));
    }
    const bool is_https = (setting & 8) != 0;
    const std::vector<result> cut = carry_out(script, is_https, which);
    for (script_block &block : script) {
        block.pieces = cut_into_pieces("", block.answer.size());
    }
    const std::vector<result> whole = carry_out(script, is_https, which);
    for (size_t i = 0; i < cut.size(); i++) {
        if (cut[i].depends_on_cut) {
            break;
        }
        require(i < whole.size() && cut[i].is_answer == whole[i].is_answer &&
                    cut[i].body == whole[i].body,
                "an answer does not depend on where it is cut");
    }
    return 0;
}
