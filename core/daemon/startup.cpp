#include "core/daemon/startup.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "core/daemon/liveness.h"
#include "core/daemon/monitor.h"
#include "core/daemon/signals.h"
#include "core/ipc_send.h"
#include "crash/crashdump.h"
#include "http/connection.h"
#include "log/log.h"
#include "log/ttylog_modules.h"
#include "platform/error_text.h"
#include "platform/ipc_open_sock.h"
#include "platform/thread_start.h"
#include "pool/worker.h"
#include "pool/worker_registry.h"
#include "wechat/follow_check.h"

// Milliseconds that the shutdown gives the workers.
static const int32_t WORKERS_END_MS = 1000;

int32_t pelkin_write_pid_file(const char *path)
{
    const int fd =
        path == nullptr ? -1 : open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    const int written = dprintf(fd, "%d", getpid());
    (void)close(fd);
    return written > 0 ? 0 : -1;
}

int32_t pelkin_init(void)
{
    crashdump_init("pelkin"); // first: the next step overrides what it does with SIGPIPE
    if (pelkin_signal_init() < 0) {
        return -1;
    }
    (void)pelkin_write_pid_file(PELKIN_PID_FILE);
    openlog("pelkin", LOG_PID, LOG_LOCAL2);
    (void)pelkin_ttylog_init();
    pelkin_set_fltlog(1);
    pelkin_set_trace_level(TU_LEVEL_NOTICE);

    pelkin_ctx = pelkin_create_ctx();
    if (pelkin_ctx == nullptr) {
        PELKIN_LOG_ERROR("create ctx fail.");
        return -1;
    }
    pelkin_prepare_lookups();
    pelkin_sock = ipc_open_sock(PELKIN_SOCKET_PATH);
    if (pelkin_sock < 0) {
        PELKIN_LOG_ERROR("Unable to open unix socket: %s", error_text(errno));
        return -1;
    }
    pelkin_thread_list = nullptr;
    pthread_t monitor; // ends with the process: neither joined nor detached
    if (start_thread(&monitor, pelkin_vokmon_reply, nullptr) != 0) {
        PELKIN_LOG_ERROR("cannot start monitor thread for vokmon");
        return -1;
    }
    pelkin_mark_alive();
    return wechat_init() == 0 ? 0 : -1;
}

void pelkin_shutdown(void)
{
    (void)pelkin_ttylog_unregister();
    if (pelkin_sock >= 0) {
        pelkin_close_sock();
    }
    if (pelkin_thread_list != nullptr) {
        (void)pelkin_release_all_threads(&pelkin_thread_list);
        // Idle workers end at once; exit must not meet them inside the library's clean-up.
        (void)pelkin_wait_for_workers(WORKERS_END_MS);
    }
    if (pelkin_ctx != nullptr) {
        SSL_CTX_free(pelkin_ctx);
        pelkin_ctx = nullptr;
    }
    ERR_free_strings();
}
