// What a task must look like, worked out from the request's bytes and independently of the intake.
#ifndef PELKIN_FUZZ_TASK_MODEL_H
#define PELKIN_FUZZ_TASK_MODEL_H

#include <string>
#include <sys/socket.h>

#include "core/http_task.h"

struct sender {
    struct sockaddr_un address;
    socklen_t length;
};

// The task of the request (`http_req_msg` and data, as it arrived), zero behind its data; false
// when the request must be refused. `task` is cleared.
bool model_task(uint32_t msg_id, const std::string &request, const struct sender *sender,
                struct http_task *task);

// The text of the task's request, of which the data is text up to its first NUL.
std::string model_request_text(const struct http_task *task);

#endif
