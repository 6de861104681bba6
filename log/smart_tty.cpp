/*
 * Printing and unregistering at the same time. A print uses three things of the record: status,
 * descriptor and process name. Unregistration must not close the descriptor (another thread could
 * get its number for a server's socket at once) or clear the name under a print, so it does so
 * behind a gate that every print goes through: a print that started before is waited for, one that
 * starts after sees a record that is disabled.
 */
#include "log/smart_tty.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>

#include "platform/cut_text.h"
#include "platform/gate.h"
#include "platform/zel_system.h"

static_assert(offsetof(struct smart_tty_msg, model) == 32, "log record layout");
static_assert(offsetof(struct smart_tty_msg, level) == 36, "log record layout");
static_assert(offsetof(struct smart_tty_msg, kind) == 40, "log record layout");
static_assert(offsetof(struct smart_tty_msg, text) == SMART_TTY_HEADER_SIZE, "log record layout");

static const size_t COMMAND_SIZE = 1024;
static const size_t DUMP_TEXT_SIZE = 4096;
static const size_t DUMP_HEADING_LONGEST = 783;
static const size_t DUMP_CHUNK = 768;
static const size_t DUMP_LINE = 16;

// Of all records: a module has one, and prints never wait.
static struct gate prints;

static uint32_t load_status(const struct smart_tty_ctrl *ctrl)
{
    return __atomic_load_n(&ctrl->status, __ATOMIC_SEQ_CST);
}

static void store_status(struct smart_tty_ctrl *ctrl, uint32_t status)
{
    __atomic_store_n(&ctrl->status, status, __ATOMIC_SEQ_CST);
}

struct smart_tty_ctrl *smart_tty_init(struct smart_tty_ctrl *ctrl)
{
    if (ctrl != nullptr) {
        *ctrl = {};
    }
    return ctrl;
}

static const char *status_word(uint32_t status)
{
    return status == 1 ? "enable" : "disable";
}

// Bit i for every entry whose name is 1 to SMART_TTY_MODEL_LONGEST characters long.
static void count_models(struct smart_tty_ctrl *ctrl)
{
    ctrl->model_mask = 0;
    ctrl->model_count = 0;
    for (uint32_t i = 0; i < SMART_TTY_MODELS; i++) {
        const size_t length = strnlen(ctrl->models[i], SMART_TTY_NAME_SIZE);
        if (length >= 1 && length <= SMART_TTY_MODEL_LONGEST) {
            ctrl->model_mask |= 1u << i;
            ctrl->model_count++;
        }
    }
}

static void announce(const struct smart_tty_ctrl *ctrl)
{
    char command[COMMAND_SIZE];
    struct cut_text text = {.start = command, .size = sizeof command, .used = 0};
    cut_text_append(&text, "ttylog register_process %s %s %u", ctrl->process,
                    status_word(load_status(ctrl)), ctrl->model_count);
    for (uint32_t i = 0; i < SMART_TTY_MODELS; i++) {
        if ((ctrl->model_mask & 1u << i) != 0) {
            cut_text_append(&text, " %u.%s", i + 1, ctrl->models[i]);
        }
    }
    (void)zel_system(command);
}

int32_t smart_tty_register(struct smart_tty_ctrl *ctrl)
{
    if (ctrl == nullptr) {
        return -1;
    }
    const int32_t fd = unix_sock_open_client(SMART_TTY_SERVICE_PATH, &ctrl->socket, 0);
    if (fd < 0 || load_status(ctrl) > 1) {
        return -1;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return -1;
    }
    count_models(ctrl);
    announce(ctrl);
    return 0;
}

int32_t smart_tty_unregister(struct smart_tty_ctrl *ctrl)
{
    if (ctrl == nullptr || ctrl->process[0] == '\0') {
        return -1;
    }
    char command[COMMAND_SIZE];
    snprintf(command, sizeof command, "ttylog unregister_process %s", ctrl->process);
    (void)zel_system(command);

    gate_close(&prints);
    store_status(ctrl, 0);
    if (ctrl->socket.fd > 0) {
        unix_sock_close(&ctrl->socket);
    }
    ctrl->socket = {};
    memset(ctrl->process, 0, sizeof ctrl->process);
    memset(ctrl->models, 0, sizeof ctrl->models);
    ctrl->model_mask = 0;
    ctrl->model_count = 0;
    gate_open(&prints);
    return 0;
}

void smart_tty_enable(struct smart_tty_ctrl *ctrl, uint32_t on)
{
    if (ctrl == nullptr || on > 1) {
        return;
    }
    store_status(ctrl, on);
    char command[COMMAND_SIZE];
    snprintf(command, sizeof command, "ttylog register_process %s %s", ctrl->process,
             status_word(on));
    (void)zel_system(command);
}

size_t smart_tty_format(struct smart_tty_msg *record, const char *format, va_list arguments)
{
    if (format == nullptr || strnlen(format, SMART_TTY_TEXT_MAX) >= SMART_TTY_TEXT_MAX) {
        return 0;
    }
    const int written = vsnprintf(record->text, SMART_TTY_TEXT_MAX, format, arguments);
    if (written <= 0) {
        return 0;
    }
    const size_t length = written < SMART_TTY_TEXT_MAX ? (size_t)written : SMART_TTY_TEXT_MAX;
    record->text[length] = '\0';
    return length;
}

// A full queue or an absent service loses the record: logging never waits. But a service that was
// restarted is another one for the kernel, to which the socket is not connected yet.
static void send_record(const struct unix_sock *sock, const struct smart_tty_msg *record,
                        size_t length)
{
    const ssize_t sent = send(sock->fd, record, length, MSG_NOSIGNAL);
    const bool is_unconnected = sent < 0 && (errno == ECONNREFUSED || errno == ENOTCONN);
    if (is_unconnected && unix_sock_reconnect(sock) == 0) {
        (void)send(sock->fd, record, length, MSG_NOSIGNAL);
    }
}

// Sends the record while the channel is enabled. Returns the status that it saw.
static uint32_t send_to_service(const struct smart_tty_ctrl *ctrl, struct smart_tty_msg *record,
                                uint32_t model, uint32_t priority, size_t length)
{
    const uint32_t status = gate_enter(&prints) != 0 ? load_status(ctrl) : 0;
    if (status == 1 && ctrl->socket.fd > 0) {
        memset(record->process, 0, sizeof record->process);
        memcpy(record->process, ctrl->process, strnlen(ctrl->process, SMART_TTY_NAME_SIZE - 1));
        record->model = model;
        record->level = priority & 7u;
        record->kind = SMART_TTY_KIND;
        send_record(&ctrl->socket, record, SMART_TTY_HEADER_SIZE + length);
    }
    gate_leave(&prints);
    return status;
}

void smart_tty_send(const struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                    struct smart_tty_msg *record, size_t length)
{
    send_to_service(ctrl, record, model, priority, length);
    syslog((int)priority, "%s", record->text);
}

void smart_tty_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                     const char *format, ...)
{
    struct smart_tty_msg record;
    va_list arguments;
    va_start(arguments, format);
    const size_t length = ctrl == nullptr ? 0 : smart_tty_format(&record, format, arguments);
    va_end(arguments);
    if (length > 0) {
        smart_tty_send(ctrl, model, priority, &record, length);
    }
}

void smart_tty_raw_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                         const char *format, ...)
{
    struct smart_tty_msg record;
    va_list arguments;
    va_start(arguments, format);
    const size_t length = ctrl == nullptr ? 0 : smart_tty_format(&record, format, arguments);
    va_end(arguments);
    if (length > 0 && send_to_service(ctrl, &record, model, priority, length) == 0) {
        printf("%s", record.text);
    }
}

// One line of a dump: up to 16 bytes in hexadecimal, then the same as text, a gap after the eighth.
static void append_dump_line(struct cut_text *text, const uint8_t *bytes, size_t count)
{
    for (size_t i = 0; i < DUMP_LINE; i++) {
        const char *separator = i == 7 ? "  " : " ";
        if (i < count) {
            cut_text_append(text, "%02X%s", bytes[i], separator);
        } else {
            cut_text_append(text, "  %s", separator);
        }
    }
    cut_text_append(text, " |");
    for (size_t i = 0; i < count; i++) {
        cut_text_append(text, "%c%s", isprint(bytes[i]) != 0 ? bytes[i] : '.', i == 7 ? " " : "");
    }
    cut_text_append(text, "\n");
}

void smart_tty_buff_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                          size_t length, const void *data, const char *format, ...)
{
    if (format == nullptr || (data == nullptr && length > 0)) {
        return;
    }
    char buffer[DUMP_TEXT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    buffer[0] = '\0';
    vsnprintf(buffer, DUMP_HEADING_LONGEST + 1, format, arguments);
    va_end(arguments);
    struct cut_text text = {.start = buffer, .size = sizeof buffer, .used = strlen(buffer)};

    const uint8_t *bytes = (const uint8_t *)data;
    for (size_t done = 0; done < length;) {
        const size_t chunk_end = length - done < DUMP_CHUNK ? length : done + DUMP_CHUNK;
        while (done < chunk_end) {
            const size_t count = chunk_end - done < DUMP_LINE ? chunk_end - done : DUMP_LINE;
            append_dump_line(&text, bytes + done, count);
            done += count;
        }
        smart_tty_raw_print(ctrl, model, priority, "%s", buffer);
        text.used = 0;
    }
}

void smart_tty_dump_ctrl(const struct smart_tty_ctrl *ctrl)
{
    if (ctrl == nullptr) {
        return;
    }
    printf("----dump your ctrl info---------\n");
    printf("%d) socket    :[%d]\n", 1, ctrl->socket.fd);
    printf("%d) process   :[%s]\n", 2, ctrl->process);
    printf("%d) status    :[%s]\n", 3, status_word(load_status(ctrl)));
    printf("%d) model     :", 4);
    for (uint32_t i = 0; i < SMART_TTY_MODELS; i++) {
        printf(" [%s]", ctrl->models[i]);
    }
    printf("\n%d) model msk :[%08x]\n", 5, ctrl->model_mask);
    printf("----dump your ctrl info end-----\n");
}
