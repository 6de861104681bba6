// Text of any kind on its way to the log service. One input is a text (length in 16 bits, bytes)
// and the bytes to dump. What the service would receive must be the text, cut, and the dump under
// the text as its heading.
#include <algorithm>
#include <stdio.h>
#include <sys/socket.h>
#include <vector>

#include "fuzz/harness.h"
#include "log/smart_tty.h"

static int service = -1;

static struct smart_tty_ctrl open_channel(void)
{
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "the service's socket");
    service = ends[1];
    struct smart_tty_ctrl ctrl = {};
    ctrl.socket.fd = ends[0];
    ctrl.status = 1;
    (void)snprintf(ctrl.process, sizeof ctrl.process, "fuzz");
    return ctrl;
}

// The next record's text, which is empty when there is none.
static std::string take_record(void)
{
    struct smart_tty_msg record;
    const ssize_t got = recv(service, &record, sizeof record, 0);
    require(got < 0 || (got > SMART_TTY_HEADER_SIZE && record.level == 7), "a record");
    return got < 0 ? "" : std::string(record.text, (size_t)got - SMART_TTY_HEADER_SIZE);
}

static std::string dump_line(const std::string &bytes)
{
    std::string hexadecimal;
    std::string text;
    for (size_t i = 0; i < 16; i++) {
        char digits[4] = "  ";
        if (i < bytes.size()) {
            const auto byte = (unsigned char)bytes[i];
            (void)snprintf(digits, sizeof digits, "%02X", byte);
            text += byte >= ' ' && byte <= '~' ? (char)byte : '.';
            text += i == 7 ? " " : "";
        }
        hexadecimal += digits + std::string(i == 7 ? "  " : " ");
    }
    return hexadecimal + " |" + text + "\n";
}

// The records of a dump, 48 lines each, before they are cut.
static std::vector<std::string> model_dump(const std::string &heading, const std::string &bytes)
{
    std::vector<std::string> records;
    std::string record = heading.substr(0, 783);
    for (size_t done = 0; done < bytes.size(); done += 16) {
        if (done % 768 == 0 && done > 0) {
            records.push_back(record);
            record.clear();
        }
        record += dump_line(bytes.substr(done, 16));
    }
    records.push_back(record);
    return records;
}

// Longer text loses its end, and the last byte sent is then a NUL.
static std::string cut(const std::string &text, size_t most)
{
    return text.size() <= most ? text : text.substr(0, most) + '\0';
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static struct smart_tty_ctrl ctrl = open_channel();
    struct input input = {data, size};
    const std::string bytes = take_bytes(&input, take_word(&input));
    const std::string text = bytes.c_str();
    const std::string dumped = take_bytes(&input, std::min<size_t>(input.size, 4096));

    smart_tty_print(&ctrl, 1, SMART_TTY_FACILITY | 7, "%s", text.c_str());
    require(take_record() == cut(text, SMART_TTY_TEXT_MAX - 1), "the record of a text");

    smart_tty_buff_print(&ctrl, 1, 7, dumped.size(), dumped.data(), "%s", text.c_str());
    if (!dumped.empty()) {
        for (const std::string &record : model_dump(text, dumped)) {
            require(take_record() == cut(record, SMART_TTY_TEXT_MAX - 1), "the record of a dump");
        }
    }
    require(take_record().empty(), "no further record");
    return 0;
}
