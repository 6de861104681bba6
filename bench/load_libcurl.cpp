// One libcurl handle, set up once and reused: what a program would do that links the library.
#include "bench/load.h"

#include <curl/curl.h>
#include <stdio.h>
#include <string.h>

#include "bench/answer.h"

static CURL *handle;
static char body[sizeof BENCH_BODY];
static size_t body_length;
static long connections;

static size_t keep_body(const char *bytes, size_t, size_t length, void *)
{
    if (length > sizeof body - body_length) {
        return 0; // longer than the answer: libcurl ends the transfer with an error
    }
    memcpy(body + body_length, bytes, length);
    body_length += length;
    return length;
}

static int32_t open_libcurl(const struct load_order *order)
{
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        return -1;
    }
    handle = curl_easy_init();
    if (handle == nullptr) {
        return -1;
    }
    (void)curl_easy_setopt(handle, CURLOPT_URL, order->urls[0]);
    (void)curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, keep_body);
    (void)curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    (void)curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    return 0;
}

static uint32_t step_libcurl(void)
{
    body_length = 0;
    const CURLcode rc = curl_easy_perform(handle);
    if (rc != CURLE_OK || body_length != sizeof BENCH_BODY - 1 ||
        memcmp(body, BENCH_BODY, body_length) != 0) {
        fprintf(stderr, "pelkin_bench_load: libcurl: %s\n",
                rc != CURLE_OK ? curl_easy_strerror(rc) : "a wrong answer");
        return 0;
    }
    long opened = 0;
    (void)curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &opened);
    connections += opened;
    if (connections > 1) {
        fputs("pelkin_bench_load: libcurl did not keep its connection\n", stderr);
        return 0;
    }
    return 1;
}

static void close_libcurl(void)
{
    curl_easy_cleanup(handle);
    curl_global_cleanup();
}

const struct load_contender load_libcurl = {.name = "libcurl",
                                            .open = open_libcurl,
                                            .step = step_libcurl,
                                            .close = close_libcurl,
                                            .warm_up = 500};
