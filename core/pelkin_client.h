/*
 * A requester in one header: ask pelkin for a URL, wait for what the server answers. From C89 with
 * gnu extensions to C++20 (strict C needs _POSIX_C_SOURCE 200809L in front of all includes); there
 * is no library to link and nothing is allocated.
 *
 *     static char body[PELKIN_MSG_MAX];
 *     long length = pelkin_client_get("http://portal.example/", NULL, body, sizeof body, 10000);
 *
 * pelkin never says that a request failed: that shows as PELKIN_CLIENT_NO_ANSWER, and the cause
 * stands in its log. An answer does not say whose it is, so every request has a socket of its own,
 * in a directory under PELKIN_CLIENT_DIRECTORY that nobody else may enter.
 *
 * Results below 0 are errors, and errno says more about those of the system. All functions may be
 * called from any thread; one client belongs to one thread at a time.
 */
#ifndef PELKIN_CORE_PELKIN_CLIENT_H
#define PELKIN_CORE_PELKIN_CLIENT_H

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "core/ipc_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef PELKIN_CLIENT_DIRECTORY
#define PELKIN_CLIENT_DIRECTORY "/tmp" /* at most 80 characters */
#endif

/* The id of requests that mean nothing to pelkin but what they ask for. */
#define PELKIN_CLIENT_MSG_ID 0x15000001u

#define PELKIN_CLIENT_BAD_URL (-1)
#define PELKIN_CLIENT_BAD_TEXT (-2)
#define PELKIN_CLIENT_NO_SOCKET (-3)
#define PELKIN_CLIENT_NO_DAEMON (-4)
#define PELKIN_CLIENT_NO_ANSWER (-5)
#define PELKIN_CLIENT_NO_ROOM (-6)
#define PELKIN_CLIENT_NO_FILE (-7)

/* A socket with a name, to which answers come. */
struct pelkin_client {
    int fd;
    struct sockaddr_un own;
};

/* What a result below 0 means, in words. */
static __inline__ const char *pelkin_client_text(long result)
{
    switch (result) {
    case PELKIN_CLIENT_BAD_URL:
        return "the URL has no host, a host above 127 or more than 255 characters";
    case PELKIN_CLIENT_BAD_TEXT:
        return "the text has more than 1024 bytes";
    case PELKIN_CLIENT_NO_SOCKET:
        return "cannot make a socket in " PELKIN_CLIENT_DIRECTORY;
    case PELKIN_CLIENT_NO_DAEMON:
        return "cannot send to " PELKIN_SOCKET_PATH ": is pelkin running?";
    case PELKIN_CLIENT_NO_ANSWER:
        return "no answer in time: pelkin's log says why";
    case PELKIN_CLIENT_NO_ROOM:
        return "the answer is larger than the buffer";
    case PELKIN_CLIENT_NO_FILE:
        return "cannot write the answer's file";
    default:
        return "no error";
    }
}

/* Closes the socket and removes its name and directory; one that is not open is left alone. */
static __inline__ void pelkin_client_close(struct pelkin_client *client)
{
    const int saved = errno;
    if (client->fd >= 0) {
        close(client->fd);
        client->fd = -1;
        unlink(client->own.sun_path);
        *strrchr(client->own.sun_path, '/') = '\0';
        rmdir(client->own.sun_path);
    }
    errno = saved;
}

/* Opens a socket that waits for pelkin's queue as long as `timeout_ms`. 0, or NO_SOCKET. */
static __inline__ int pelkin_client_open(struct pelkin_client *client, int timeout_ms)
{
    struct timeval patience;
    memset(client, 0, sizeof *client);
    client->own.sun_family = AF_UNIX;
    strcpy(client->own.sun_path, PELKIN_CLIENT_DIRECTORY "/pelkin-XXXXXX");
    client->fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (client->fd < 0) {
        return PELKIN_CLIENT_NO_SOCKET;
    }
    if (mkdtemp(client->own.sun_path) == NULL) {
        close(client->fd);
        return PELKIN_CLIENT_NO_SOCKET;
    }
    strcat(client->own.sun_path, "/s");
    patience.tv_sec = timeout_ms / 1000;
    patience.tv_usec = timeout_ms % 1000 * 1000 + 1; /* 0 would be for ever */
    if (fcntl(client->fd, F_SETFD, FD_CLOEXEC) != 0 ||
        setsockopt(client->fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
        bind(client->fd, (const struct sockaddr *)&client->own, sizeof client->own) != 0) {
        pelkin_client_close(client);
        return PELKIN_CLIENT_NO_SOCKET;
    }
    return 0;
}

/*
 * Fills a request whose answer comes back to the socket; `http_req_type` is PELKIN_HTTP_POST, or 0
 * for a GET. For another `resp_method`, `file_path` and `len`, set them behind it. 0, or BAD_URL.
 */
static __inline__ int pelkin_client_fill(struct http_req_msg *request, uint32_t http_req_type,
                                         const char *url)
{
    size_t host_len;
    const char *host = url;
    if (strncmp(url, "http://", 7) == 0) {
        host += 7;
    } else if (strncmp(url, "https://", 8) == 0) {
        host += 8;
    }
    host_len = strcspn(host, "/");
    if (host_len < 1 || host_len > 127 || strlen(url) >= PELKIN_URL_SIZE) {
        return PELKIN_CLIENT_BAD_URL;
    }
    memset(request, 0, sizeof *request);
    request->resp_method = PELKIN_RESP_SOCKET;
    request->http_req_type = http_req_type;
    strcpy(request->url, url);
    return 0;
}

/*
 * Sends a request with the `request->len` bytes of its data, such as a batch of stations; their
 * total with both heads is at most PELKIN_MSG_MAX. 0, or NO_DAEMON.
 */
static __inline__ int pelkin_client_send(const struct pelkin_client *client, uint32_t msg_id,
                                         const struct http_req_msg *request, const void *data)
{
    struct ipc_msg_hdr header;
    struct sockaddr_un pelkin;
    struct iovec parts[3];
    struct msghdr message;
    ssize_t sent;
    memset(&header, 0, sizeof header);
    header.msg_id = msg_id;
    header.len = (uint32_t)sizeof *request + request->len;
    memset(&pelkin, 0, sizeof pelkin);
    pelkin.sun_family = AF_UNIX;
    strcpy(pelkin.sun_path, PELKIN_SOCKET_PATH);
    parts[0].iov_base = &header;
    parts[0].iov_len = sizeof header;
    parts[1].iov_base = (void *)request;
    parts[1].iov_len = sizeof *request;
    parts[2].iov_base = (void *)data;
    parts[2].iov_len = request->len;
    memset(&message, 0, sizeof message);
    message.msg_name = &pelkin;
    message.msg_namelen = sizeof pelkin;
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    do {
        sent = sendmsg(client->fd, &message, 0);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? PELKIN_CLIENT_NO_DAEMON : 0;
}

/* Milliseconds of a clock that nobody sets. */
static __inline__ long pelkin_client_now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long)(now.tv_sec * 1000L + now.tv_nsec / 1000000L);
}

/*
 * Waits for the answer, at most `timeout_ms`: its length, the body alone in `buffer` without a NUL;
 * NO_ANSWER, or NO_ROOM. A client that got none is done with: a late answer would be taken for the
 * next request's.
 */
static __inline__ long pelkin_client_receive(const struct pelkin_client *client, void *buffer,
                                             size_t size, int timeout_ms)
{
    const long end_ms = pelkin_client_now_ms() + timeout_ms;
    struct pollfd watched;
    struct iovec part;
    struct msghdr message;
    ssize_t length;
    int ready;
    watched.fd = client->fd;
    watched.events = POLLIN;
    do {
        const long left_ms = end_ms - pelkin_client_now_ms();
        ready = poll(&watched, 1, left_ms < 0 ? 0 : (int)left_ms);
    } while (ready < 0 && errno == EINTR);
    part.iov_base = buffer;
    part.iov_len = size;
    memset(&message, 0, sizeof message);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    length = ready == 1 ? recvmsg(client->fd, &message, MSG_DONTWAIT) : -1;
    if (length < 0) {
        return PELKIN_CLIENT_NO_ANSWER;
    }
    return (message.msg_flags & MSG_TRUNC) != 0 ? (long)PELKIN_CLIENT_NO_ROOM : (long)length;
}

/* Sends `text` with the request, as the text of a single-token check or any other id does. */
static __inline__ int pelkin_client_send_text(const struct pelkin_client *client,
                                              struct http_req_msg *request, const char *text)
{
    char data[PELKIN_MAC_SIZE + PELKIN_TEXT_MAX + 1];
    const size_t text_len = text == NULL ? 0 : strlen(text);
    if (text_len > PELKIN_TEXT_MAX) {
        return PELKIN_CLIENT_BAD_TEXT;
    }
    memset(data, 0, sizeof data);
    memcpy(data + PELKIN_MAC_SIZE, text == NULL ? "" : text, text_len);
    request->len = text == NULL ? 0 : (uint32_t)(PELKIN_MAC_SIZE + text_len + 1);
    return pelkin_client_send(client, PELKIN_CLIENT_MSG_ID, request, data);
}

/*
 * A whole request: `text` is the query of a GET or the body of a POST, sent as it is; NULL for
 * none. The time-out holds for handing it over and for the answer, each. The length of the body in
 * `buffer` (a body is less than PELKIN_MSG_MAX bytes), or an error.
 */
static __inline__ long pelkin_client_ask(uint32_t http_req_type, const char *url, const char *text,
                                         void *buffer, size_t size, int timeout_ms)
{
    struct pelkin_client client;
    struct http_req_msg request;
    long result = pelkin_client_fill(&request, http_req_type, url);
    if (result == 0) {
        result = pelkin_client_open(&client, timeout_ms);
    }
    if (result != 0) {
        return result;
    }
    result = pelkin_client_send_text(&client, &request, text);
    if (result == 0) {
        result = pelkin_client_receive(&client, buffer, size, timeout_ms);
    }
    pelkin_client_close(&client);
    return result;
}

static __inline__ long pelkin_client_get(const char *url, const char *text, void *buffer,
                                         size_t size, int timeout_ms)
{
    return pelkin_client_ask(0, url, text, buffer, size, timeout_ms);
}

static __inline__ long pelkin_client_post(const char *url, const char *text, void *buffer,
                                          size_t size, int timeout_ms)
{
    return pelkin_client_ask(PELKIN_HTTP_POST, url, text, buffer, size, timeout_ms);
}

/*
 * The same into a file, which is made or emptied once the answer is there, with the caller's
 * rights; PELKIN_RESP_FILE has pelkin write one instead, and never says when. Puts a message of
 * PELKIN_MSG_MAX bytes on the stack. The body's length, or an error, NO_FILE among them.
 */
static __inline__ long pelkin_client_ask_to_file(uint32_t http_req_type, const char *url,
                                                 const char *text, const char *path, int timeout_ms)
{
    char body[PELKIN_MSG_MAX];
    const long length = pelkin_client_ask(http_req_type, url, text, body, sizeof body, timeout_ms);
    int fd;
    long written = 0;
    if (length < 0) {
        return length;
    }
    fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    while (fd >= 0 && written < length) {
        const ssize_t count = write(fd, body + written, (size_t)(length - written));
        if (count < 0 && errno != EINTR) {
            break;
        }
        written += count < 0 ? 0 : (long)count;
    }
    if (fd < 0 || close(fd) != 0 || written < length) {
        return PELKIN_CLIENT_NO_FILE;
    }
    return length;
}

#ifdef __cplusplus
}
#endif
#endif
