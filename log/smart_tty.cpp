/*
 * Printing and unregistering at the same time. A print uses three things of the record: status,
 * descriptor and process name. Unregistration must not close the descriptor (another thread could
 * get its number for a server's socket at once) or clear the name under a print. So every print
 * counts itself in `prints_under_way` before it looks at the status, and unregistration first sets
 * the status to 0 and then waits until the count is 0: a print that started before is waited for,
 * one that starts after sees the 0. Both sides use sequentially consistent operations, without
 * which each could miss the other's store. No lock, and a print never waits.
 */
#include "log/smart_tty.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>

#include "platform/zel_system.h"

static const size_t COMMAND_SIZE = 1024;
static const size_t DUMP_TEXT_SIZE = 4096;
static const size_t DUMP_HEADING_LONGEST = 783;
static const size_t DUMP_CHUNK = 768;
static const size_t DUMP_LINE = 16;

// Atomic: prints of any thread, see above.
static uint32_t prints_under_way;

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

// Appends to a text of `size` bytes of which `*used` are taken; a text that does not fit is cut.
static void append(char *text, size_t size, size_t *used, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
static void append(char *text, size_t size, size_t *used, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(text + *used, size - *used, format, arguments);
    va_end(arguments);
    if (written > 0) {
        const size_t room = size - *used - 1;
        *used += (size_t)written < room ? (size_t)written : room;
    }
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
    size_t used = 0;
    append(command, sizeof command, &used, "ttylog register_process %s %s %u", ctrl->process,
           status_word(load_status(ctrl)), ctrl->model_count);
    for (uint32_t i = 0; i < SMART_TTY_MODELS; i++) {
        if ((ctrl->model_mask & 1u << i) != 0) {
            append(command, sizeof command, &used, " %u.%s", i + 1, ctrl->models[i]);
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
    (void)snprintf(command, sizeof command, "ttylog unregister_process %s", ctrl->process);
    (void)zel_system(command);

    store_status(ctrl, 0);
    while (__atomic_load_n(&prints_under_way, __ATOMIC_SEQ_CST) != 0) {
        (void)sched_yield();
    }
    if (ctrl->socket.fd > 0) {
        unix_sock_close(&ctrl->socket);
    }
    ctrl->socket = {};
    memset(ctrl->process, 0, sizeof ctrl->process);
    memset(ctrl->models, 0, sizeof ctrl->models);
    ctrl->model_mask = 0;
    ctrl->model_count = 0;
    return 0;
}

void smart_tty_enable(struct smart_tty_ctrl *ctrl, uint32_t on)
{
    if (ctrl == nullptr || on > 1) {
        return;
    }
    store_status(ctrl, on);
    char command[COMMAND_SIZE];
    (void)snprintf(command, sizeof command, "ttylog register_process %s %s", ctrl->process,
                   status_word(on));
    (void)zel_system(command);
}

// Formats into the record's text; returns its length, 0 when there is nothing to print.
static size_t format_text(char text[SMART_TTY_TEXT_MAX + 1], const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
static size_t format_text(char text[SMART_TTY_TEXT_MAX + 1], const char *format, va_list arguments)
{
    if (format == nullptr || strnlen(format, SMART_TTY_TEXT_MAX) >= SMART_TTY_TEXT_MAX) {
        return 0;
    }
    const int written = vsnprintf(text, SMART_TTY_TEXT_MAX, format, arguments);
    if (written <= 0) {
        return 0;
    }
    const size_t length = written < SMART_TTY_TEXT_MAX ? (size_t)written : SMART_TTY_TEXT_MAX;
    text[length] = '\0';
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
    (void)__atomic_add_fetch(&prints_under_way, 1, __ATOMIC_SEQ_CST);
    const uint32_t status = load_status(ctrl);
    if (status == 1 && ctrl->socket.fd > 0) {
        memset(record->process, 0, sizeof record->process);
        memcpy(record->process, ctrl->process, strnlen(ctrl->process, SMART_TTY_NAME_SIZE - 1));
        record->model = model;
        record->level = priority & 7u;
        record->kind = SMART_TTY_KIND;
        send_record(&ctrl->socket, record, SMART_TTY_HEADER_SIZE + length);
    }
    (void)__atomic_sub_fetch(&prints_under_way, 1, __ATOMIC_SEQ_CST);
    return status;
}

void smart_tty_vprint(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                      const char *format, va_list arguments)
{
    struct smart_tty_msg record;
    const size_t length = ctrl == nullptr ? 0 : format_text(record.text, format, arguments);
    if (length == 0) {
        return;
    }
    (void)send_to_service(ctrl, &record, model, priority, length);
    syslog((int)priority, "%s", record.text);
}

void smart_tty_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                     const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    smart_tty_vprint(ctrl, model, priority, format, arguments);
    va_end(arguments);
}

void smart_tty_raw_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                         const char *format, ...)
{
    struct smart_tty_msg record;
    va_list arguments;
    va_start(arguments, format);
    const size_t length = ctrl == nullptr ? 0 : format_text(record.text, format, arguments);
    va_end(arguments);
    if (length > 0 && send_to_service(ctrl, &record, model, priority, length) == 0) {
        (void)printf("%s", record.text);
    }
}

// One line of a dump: up to 16 bytes in hexadecimal, then the same as text, a gap after the eighth.
static void append_dump_line(char *text, size_t *used, const uint8_t *bytes, size_t count)
{
    for (size_t i = 0; i < DUMP_LINE; i++) {
        const char *separator = i == 7 ? "  " : " ";
        if (i < count) {
            append(text, DUMP_TEXT_SIZE, used, "%02X%s", bytes[i], separator);
        } else {
            append(text, DUMP_TEXT_SIZE, used, "  %s", separator);
        }
    }
    append(text, DUMP_TEXT_SIZE, used, " |");
    for (size_t i = 0; i < count; i++) {
        append(text, DUMP_TEXT_SIZE, used, "%c%s", isprint(bytes[i]) != 0 ? bytes[i] : '.',
               i == 7 ? " " : "");
    }
    append(text, DUMP_TEXT_SIZE, used, "\n");
}

void smart_tty_buff_print(struct smart_tty_ctrl *ctrl, uint32_t model, uint32_t priority,
                          size_t length, const void *data, const char *format, ...)
{
    if (format == nullptr || (data == nullptr && length > 0)) {
        return;
    }
    char text[DUMP_TEXT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(text, DUMP_HEADING_LONGEST + 1, format, arguments);
    va_end(arguments);
    size_t used = written < 0 ? 0 : (size_t)written;
    used = used < DUMP_HEADING_LONGEST ? used : DUMP_HEADING_LONGEST;

    const uint8_t *bytes = (const uint8_t *)data;
    for (size_t done = 0; done < length;) {
        const size_t chunk_end = length - done < DUMP_CHUNK ? length : done + DUMP_CHUNK;
        while (done < chunk_end) {
            const size_t count = chunk_end - done < DUMP_LINE ? chunk_end - done : DUMP_LINE;
            append_dump_line(text, &used, bytes + done, count);
            done += count;
        }
        smart_tty_raw_print(ctrl, model, priority, "%s", text);
        used = 0;
    }
}

void smart_tty_dump_ctrl(const struct smart_tty_ctrl *ctrl)
{
    if (ctrl == nullptr) {
        return;
    }
    (void)printf("----dump your ctrl info---------\n");
    (void)printf("%d) socket    :[%d]\n", 1, ctrl->socket.fd);
    (void)printf("%d) process   :[%s]\n", 2, ctrl->process);
    (void)printf("%d) status    :[%s]\n", 3, status_word(load_status(ctrl)));
    (void)printf("%d) model     :", 4);
    for (uint32_t i = 0; i < SMART_TTY_MODELS; i++) {
        (void)printf(" [%s]", ctrl->models[i]);
    }
    (void)printf("\n%d) model msk :[%08x]\n", 5, ctrl->model_mask);
    (void)printf("----dump your ctrl info end-----\n");
}
