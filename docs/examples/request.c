/*
 * request URL: asks pelkin for a URL (a GET) and prints the answer's body. As short as a module's
 * code may be; docs/messages.md explains it. Needs the public headers and a C11 compiler only:
 *
 *     cc -std=c11 -I DIRECTORY_OF_THE_HEADERS -o request request.c
 */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/ipc_msg.h"

#define MY_MESSAGE_ID 0x15000100u /* any id that has no meaning of its own */
#define TIMEOUT_MS 10000          /* pelkin never says that a request failed */

struct message {
    struct ipc_msg_hdr header;
    struct http_req_msg request;
};
WIRE_SIZE(struct message, 12 + 412);

/* A socket with a name: without one there is nowhere to send the answer. -1 on failure. */
static int open_own_socket(struct sockaddr_un *own)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0) {
        return -1;
    }
    memset(own, 0, sizeof *own);
    own->sun_family = AF_UNIX;
    snprintf(own->sun_path, sizeof own->sun_path, "/tmp/request-%ld.socket", (long)getpid());
    unlink(own->sun_path); /* of a process that had this id before */
    if (bind(fd, (const struct sockaddr *)own, sizeof *own) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static int send_request(int fd, const char *url)
{
    struct message message = {
        .header = {.msg_id = MY_MESSAGE_ID, .len = sizeof message.request},
        .request = {.resp_method = PELKIN_RESP_SOCKET, .len = 0},
    };
    if (strlen(url) >= sizeof message.request.url) {
        return -1;
    }
    strcpy(message.request.url, url);

    const struct sockaddr_un pelkin = {.sun_family = AF_UNIX, .sun_path = PELKIN_SOCKET_PATH};
    const ssize_t sent =
        sendto(fd, &message, sizeof message, 0, (const struct sockaddr *)&pelkin, sizeof pelkin);
    return sent == (ssize_t)sizeof message ? 0 : -1;
}

/* The body alone comes back: no envelope, no id, no NUL. Its length, or -1 without an answer. */
static ssize_t receive_answer(int fd, char *body, size_t size)
{
    struct pollfd watched = {.fd = fd, .events = POLLIN};
    return poll(&watched, 1, TIMEOUT_MS) == 1 ? recv(fd, body, size, 0) : -1;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: request URL\n");
        return 1;
    }
    struct sockaddr_un own;
    const int fd = open_own_socket(&own);
    if (fd < 0) {
        perror("cannot make a socket in /tmp");
        return 1;
    }
    int status = 1;
    static char body[PELKIN_MSG_MAX];
    if (send_request(fd, argv[1]) != 0) {
        fprintf(stderr, "cannot send the request: is pelkin running, the URL under 256 bytes?\n");
    } else {
        const ssize_t length = receive_answer(fd, body, sizeof body);
        if (length < 0) {
            fprintf(stderr, "no answer in time: see pelkin's log\n");
        } else {
            fwrite(body, 1, (size_t)length, stdout);
            status = 0;
        }
    }
    close(fd);
    unlink(own.sun_path);
    return status;
}
