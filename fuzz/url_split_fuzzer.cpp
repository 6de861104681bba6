// One input is a request: 256 bytes of URL, what a shorter one lacks reading as zero, 144 of file
// path, the two small values, and the data. The request ends where its data does, so that the
// sanitizer sees every read too far.
#include <memory>
#include <string.h>

#include "core/daemon/intake.h"
#include "fuzz/harness.h"
#include "fuzz/task_model.h"
#include "http/request.h"

static void check_request_text(const struct http_task *task)
{
    static char text[PELKIN_HTTP_REQ_MAX];
    int32_t length = 0;
    const std::string expected = model_request_text(task);
    require(pelkin_build_http_req(task, text, sizeof text, &length) == 0 &&
                (size_t)length == expected.size() && text == expected,
            "the request's text");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct input input = {data, size};
    struct http_req_msg fields = {};
    const std::string url = take_bytes(&input, sizeof fields.url);
    const std::string file = take_bytes(&input, sizeof fields.file_path);
    memcpy(fields.url, url.data(), url.size());
    memcpy(fields.file_path, file.data(), file.size());
    fields.http_req_type = take_byte(&input) % 3;
    fields.resp_method = take_byte(&input);
    fields.len = (uint32_t)input.size;

    const std::string request =
        std::string((const char *)&fields, sizeof fields) + take_bytes(&input, input.size);
    auto exact = std::make_unique<uint32_t[]>((request.size() + 3) / 4);
    memcpy(exact.get(), request.data(), request.size());
    const struct sender sender = {{.sun_family = AF_UNIX, .sun_path = "/tmp/requester"}, 16};

    static struct http_task task;
    static struct http_task expected;
    task = {};
    const bool is_filled = pelkin_fill_http_task(PELKIN_MSG_FBAUTH_REQ, &task,
                                                 (const struct http_req_msg *)exact.get(),
                                                 &sender.address, sender.length) == 0;
    require(is_filled == model_task(PELKIN_MSG_FBAUTH_REQ, request, &sender, &expected),
            "which URLs are refused");
    if (is_filled) {
        require(memcmp(&task, &expected, sizeof task) == 0, "the task");
        check_request_text(&task);
    }
    return 0;
}
