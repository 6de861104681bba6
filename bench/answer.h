/*
 * What the server of the benchmark answers to every request. The load compares what it gets with
 * it, so that a wrong or cut answer ends a run instead of making it look fast.
 */
#ifndef PELKIN_BENCH_ANSWER_H
#define PELKIN_BENCH_ANSWER_H

#define BENCH_BODY "{\"result\":\"ok\"}"
#define BENCH_BODY_LENGTH "15"
#define BENCH_ANSWER                                                                               \
    "HTTP/1.0 200 OK\r\nContent-Type: application/json\r\nConnection: keep-alive\r\n"              \
    "Content-Length: " BENCH_BODY_LENGTH "\r\n\r\n" BENCH_BODY

#ifdef __cplusplus
static_assert(sizeof BENCH_BODY - 1 == 15, "the announced length is the body's");
#endif
#endif
