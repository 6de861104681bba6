/* request_by_hand URL: what request.c does, with the records alone. */
#define _POSIX_C_SOURCE 200809L
#include <pelkin/ipc_msg.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct message {
    struct ipc_msg_hdr header;
    struct http_req_msg request;
};
WIRE_SIZE(struct message, 12 + 412);

/* Sends the request and prints what comes back within ten seconds. 0, or -1. */
static int ask(int fd, const char *url)
{
    static char body[PELKIN_MSG_MAX];
    struct sockaddr_un pelkin = {AF_UNIX, PELKIN_SOCKET_PATH};
    struct pollfd watched = {-1, POLLIN, 0};
    struct message message;
    ssize_t length = -1;
    watched.fd = fd;
    memset(&message, 0, sizeof message);
    message.header.msg_id = 0x15000001u; /* any id that has no meaning of its own */
    message.header.len = sizeof message.request;
    message.request.resp_method = PELKIN_RESP_SOCKET;
    strncpy(message.request.url, url, PELKIN_URL_SIZE - 1);
    if (sendto(fd, &message, sizeof message, 0, (struct sockaddr *)&pelkin, sizeof pelkin) >= 0 &&
        poll(&watched, 1, 10000) == 1) {
        length = recv(fd, body, sizeof body, 0); /* the body alone: no envelope, no NUL */
    }
    return length >= 0 && fwrite(body, 1, (size_t)length, stdout) == (size_t)length ? 0 : -1;
}

/* The socket has a name, to which the answer comes, in a directory that only its owner enters. */
int main(int argc, char **argv)
{
    char directory[] = "/tmp/request-XXXXXX";
    struct sockaddr_un own = {AF_UNIX, ""};
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    int result = -1;
    if (argc == 2 && strlen(argv[1]) < PELKIN_URL_SIZE && mkdtemp(directory) != NULL) {
        snprintf(own.sun_path, sizeof own.sun_path, "%s/socket", directory);
        if (bind(fd, (const struct sockaddr *)&own, sizeof own) == 0) {
            result = ask(fd, argv[1]);
        }
        unlink(own.sun_path);
        rmdir(directory);
    }
    close(fd);
    if (result != 0) {
        fprintf(stderr, "request_by_hand: no answer\n");
    }
    return result == 0 ? 0 : 1;
}
