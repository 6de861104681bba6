#include "tools/output.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "tools/printable.h"

static const size_t SAID_MAX = 2048;

static bool quiet;

void be_quiet()
{
    quiet = true;
}

bool is_quiet()
{
    return quiet;
}

void say(const char *format, ...)
{
    if (quiet) {
        return;
    }
    char text[SAID_MAX];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // What it quotes, from arguments and from the log, must neither begin a line nor command the
    // terminal.
    std::string line = "pelkinctl: " + printable(text);
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::fputs((line + "\n").c_str(), stderr);
}

bool write_out(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            say("cannot write to standard output: %s", std::strerror(errno));
            return false;
        }
        bytes.remove_prefix(written > 0 ? (size_t)written : 0);
    }
    return true;
}

bool output_is_terminal()
{
    return isatty(STDOUT_FILENO) == 1;
}

bool write_answer(std::string_view answer)
{
    if (!output_is_terminal()) {
        return write_out(answer);
    }
    std::string text = printable(answer);
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    return write_out(text);
}

bool output_is_coloured()
{
    const char *no_color = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return output_is_terminal() && (no_color == nullptr || no_color[0] == '\0') &&
           (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}
