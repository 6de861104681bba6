// The example of the message page: it compiles as strict C11 (with this test), does what it says,
// and the page shows no other code.
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <utility>

#include "tests/support/daemon.h"
#include "tests/support/server.h"
#include "tests/support/wait.h"

// What the example prints, and its exit status.
static std::pair<std::string, int> run_example(const std::string &argument)
{
    const char *example = std::getenv("PELKIN_EXAMPLE");
    FILE *pipe = popen((std::string(example) + " " + argument + " 2>&1").c_str(), "re");
    std::string output;
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
        output += (char)byte;
    }
    const int status = pclose(pipe);
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(ExampleRequest, FetchesAUrlAndFailsWithoutADaemon)
{
    EXPECT_EQ(run_example("http://127.0.0.1/").second, 1);
    support::Server server({}, support::serve_bodies([](const std::string &request) {
                               return "asked: " + request.substr(0, request.find("\r\n"));
                           }));
    support::Daemon daemon;
    const auto [output, status] = run_example("http://127.0.0.1/page");
    EXPECT_EQ(output, "asked: GET /page HTTP/1.0");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(run_example("http://" + std::string(300, 'x')).second, 1) << "cut, it is another URL";
}

TEST(MessagePage, ShowsCodeOfTheCompiledExampleOnly)
{
    const std::string source_dir = std::getenv("PELKIN_SOURCE_DIR");
    const std::string page = support::read_file(source_dir + "/docs/messages.md");
    const std::string example = support::read_file(source_dir + "/docs/examples/request.c");
    const std::string opening = "```c\n";
    size_t blocks = 0;
    for (size_t at = page.find(opening); at != std::string::npos; at = page.find(opening, at)) {
        at += opening.size();
        const std::string block = page.substr(at, page.find("```", at) - at);
        EXPECT_NE(example.find(block), std::string::npos) << block;
        blocks++;
    }
    EXPECT_GT(blocks, 0u);
}
