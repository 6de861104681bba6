#include <algorithm>
#include <stdint.h>
#include <string_view>

#include "fuzz/harness.h"
#include "fuzz/scripted_server.h"

static const std::string_view blank_line = "\r\n\r\n";
static const std::string_view key = "Content-Length: ";

// What a reader of text sees of the bytes.
static std::string_view up_to_nul(std::string_view bytes)
{
    return bytes.substr(0, bytes.find('\0'));
}

// The number behind the key; -1 for none or a negative one.
static int64_t announced_length(std::string_view text)
{
    const size_t at = text.find(key);
    int64_t number = -1;
    if (at == std::string_view::npos || !model_number(text.substr(at + key.size()), &number)) {
        return -1;
    }
    return std::clamp<int64_t>(number, -1, INT32_MAX);
}

static size_t head_length(std::string_view text)
{
    const size_t at = text.find(blank_line);
    return at == std::string::npos ? 0 : at + blank_line.size();
}

// The announced end as soon as the blank line has arrived, by what has arrived by then.
static int64_t announced_end(std::string_view arrived)
{
    const std::string_view text = up_to_nul(arrived);
    const size_t head = head_length(text);
    const int64_t length = head == 0 ? -1 : announced_length(text);
    return length < 0 ? -1 : (int64_t)head + length;
}

// The number stands behind the blank line, so that it counts as far as it came together with that.
// A negative one counts as none, unless its beginning is -0.
static bool may_depend_on_cut(std::string_view arrived)
{
    const std::string_view text = up_to_nul(arrived);
    const size_t head = head_length(text);
    const size_t at = text.find(key);
    if (head == 0 || at == std::string_view::npos) {
        return false;
    }
    const size_t start = text.find_first_not_of(" \t\n\v\f\r", at + key.size());
    if (start == std::string_view::npos || start < head) {
        return false;
    }
    const std::string_view number = text.substr(start);
    int64_t value = -1;
    return model_number(number, &value) && (number[0] != '-' || number[1] == '0');
}

static void cut_head(std::string_view arrived, model_answer *answer)
{
    const size_t head = head_length(up_to_nul(arrived));
    answer->is_cut_off = head != 0;
    answer->body = head < arrived.size() && arrived[head] != '\0' ? arrived.substr(head) : arrived;
}

model_answer model_answer_of(const script_block *block, size_t size)
{
    const std::string_view all = std::string_view(block->answer).substr(0, size - 1);
    int64_t end = -1;
    bool has_head = false;
    std::string_view arrived;
    for (const piece &piece : block->pieces) {
        arrived = all.substr(0, arrived.size() + piece.length);
        if (!has_head) {
            end = announced_end(arrived);
            has_head = head_length(up_to_nul(arrived)) != 0;
        }
        if (arrived.size() == size - 1 || (end >= 0 && (int64_t)arrived.size() >= end)) {
            break;
        }
    }
    model_answer answer = {};
    answer.is_answer = !arrived.empty();
    answer.depends_on_cut = may_depend_on_cut(all);
    answer.is_clean = end == (int64_t)arrived.size();
    if (end >= 0 && end < (int64_t)arrived.size()) {
        arrived = arrived.substr(0, (size_t)end);
    }
    cut_head(arrived, &answer);
    return answer;
}
