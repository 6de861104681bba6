#include <exception>
#include <fcntl.h>
#include <unistd.h>

#include "tools/command_line.h"
#include "tools/exit_status.h"
#include "tools/output.h"
#include "tools/own_socket.h"

// A standard descriptor that came closed must not become the number of a socket, nor take an
// answer: what stands for it cannot be written to.
static void keep_standard_descriptors()
{
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

int main(int argc, char **argv)
{
    keep_standard_descriptors();
    guard_own_sockets();
    int status = STATUS_USAGE;
    try {
        status = run_command_line(argc, argv);
    } catch (const std::exception &failure) {
        say("%s", failure.what());
    }
    remove_own_sockets();
    return status;
}
