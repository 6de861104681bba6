/*
 * Requests through the daemon, as a module sends them: one bound datagram socket, the answers come
 * back to it. A step asks for what is missing to the number outstanding and takes all answers that
 * are there, in one system call each: what the load itself costs would otherwise be taken from the
 * daemon, which shares the processors with it.
 */
#include "bench/load.h"

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bench/answer.h"
#include "core/ipc_msg.h"

static const uint32_t OUTSTANDING_MAX = 64;
static const uint32_t URLS_MAX = 1024;
static const size_t ANSWER_MAX = 2048;
static const time_t PATIENCE_S = 15;
static const uint32_t MODULE_MSG_ID = 0x15000001; // one that the daemon gives no meaning to

struct request {
    struct ipc_msg_hdr header;
    struct http_req_msg body;
};

static int32_t sock = -1;
static struct sockaddr_un own_address;
static struct sockaddr_un daemon_address;
static struct request requests[URLS_MAX]; // one a URL
static uint32_t request_count;
static uint32_t next_request;
static struct iovec request_parts[OUTSTANDING_MAX];
static struct mmsghdr questions[OUTSTANDING_MAX];
static char bodies[OUTSTANDING_MAX][ANSWER_MAX];
static struct iovec body_parts[OUTSTANDING_MAX];
static struct mmsghdr answers[OUTSTANDING_MAX];
static uint32_t outstanding;
static uint32_t under_way;
static uint64_t requests_left;

static void fill_request(struct request *request, const char *url)
{
    *request = {};
    request->header.msg_id = MODULE_MSG_ID;
    request->header.len = sizeof request->body;
    request->body.resp_method = PELKIN_RESP_SOCKET;
    (void)snprintf(request->body.url, sizeof request->body.url, "%s", url);
}

static void fill_vectors(void)
{
    for (uint32_t i = 0; i < OUTSTANDING_MAX; i++) {
        questions[i].msg_hdr = {};
        questions[i].msg_hdr.msg_name = &daemon_address;
        questions[i].msg_hdr.msg_namelen = sizeof daemon_address;
        questions[i].msg_hdr.msg_iov = &request_parts[i];
        questions[i].msg_hdr.msg_iovlen = 1;
        body_parts[i] = {.iov_base = bodies[i], .iov_len = ANSWER_MAX};
        answers[i].msg_hdr = {};
        answers[i].msg_hdr.msg_iov = &body_parts[i];
        answers[i].msg_hdr.msg_iovlen = 1;
    }
}

static int32_t ask(uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        request_parts[i] = {.iov_base = &requests[next_request], .iov_len = sizeof *requests};
        next_request = (next_request + 1) % request_count;
    }
    for (uint32_t done = 0; done < count;) {
        const int sent = sendmmsg(sock, questions + done, count - done, 0);
        if (sent <= 0) {
            load_complain("cannot send a request");
            return -1;
        }
        done += (uint32_t)sent;
    }
    under_way += count;
    requests_left -= count;
    return 0;
}

static int32_t open_daemon(const struct load_order *order)
{
    if (order->outstanding < 1 || order->outstanding > OUTSTANDING_MAX ||
        order->url_count > URLS_MAX) {
        fprintf(stderr, "pelkin_bench_load: 1 to %u outstanding, at most %u URLs\n",
                OUTSTANDING_MAX, URLS_MAX);
        return -1;
    }
    own_address.sun_family = AF_UNIX;
    daemon_address.sun_family = AF_UNIX;
    (void)snprintf(own_address.sun_path, sizeof own_address.sun_path, "/tmp/pelkin_bench.%d",
                   getpid());
    (void)snprintf(daemon_address.sun_path, sizeof daemon_address.sun_path, "%s",
                   PELKIN_SOCKET_PATH);
    sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct timeval patience = {.tv_sec = PATIENCE_S, .tv_usec = 0};
    (void)setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (bind(sock, (const struct sockaddr *)&own_address, sizeof own_address) != 0) {
        load_complain(own_address.sun_path);
        return -1;
    }
    request_count = order->url_count;
    for (uint32_t i = 0; i < request_count; i++) {
        fill_request(&requests[i], order->urls[i]);
    }
    fill_vectors();
    outstanding = order->outstanding;
    requests_left = order->requests;
    return 0;
}

// Takes the answers that are there, at least one. Their number, or 0.
static uint32_t take_answers(void)
{
    const int got = recvmmsg(sock, answers, OUTSTANDING_MAX, MSG_WAITFORONE, nullptr);
    if (got <= 0) {
        load_complain("no answer");
        return 0;
    }
    for (int i = 0; i < got; i++) {
        if (answers[i].msg_len != sizeof BENCH_BODY - 1 ||
            memcmp(bodies[i], BENCH_BODY, sizeof BENCH_BODY - 1) != 0) {
            fputs("pelkin_bench_load: a wrong answer\n", stderr);
            return 0;
        }
    }
    under_way -= (uint32_t)got;
    return (uint32_t)got;
}

static uint32_t step_daemon(void)
{
    const uint32_t missing = outstanding - under_way;
    const uint32_t count = missing < requests_left ? missing : (uint32_t)requests_left;
    return ask(count) == 0 ? take_answers() : 0;
}

static void close_daemon(void)
{
    while (under_way > 0 && take_answers() > 0) {
    }
    (void)unlink(own_address.sun_path);
    (void)close(sock);
}

const struct load_contender load_daemon = {.name = "daemon",
                                           .open = open_daemon,
                                           .step = step_daemon,
                                           .close = close_daemon,
                                           .warm_up = 500};
