/*
 * The socket files that pelkinctl makes, and their removal on every way out: main() removes them at
 * its end, and so does a handler for the signals that would end the program (SIGINT, SIGTERM,
 * SIGPIPE, SIGHUP, SIGQUIT), before it lets the signal end it. A file that is no longer the one
 * that was made, because another program has replaced it, stays.
 */
#ifndef PELKIN_TOOLS_OWN_SOCKET_H
#define PELKIN_TOOLS_OWN_SOCKET_H

/* Installs the handler. Before the first socket. */
void guard_own_sockets();

/*
 * From now on SIGINT and SIGTERM are an orderly end, with exit status 0; `last_words` is called
 * before it, from the signal handler, unless it is null.
 */
void end_in_order_when_interrupted(void (*last_words)());

/* Sockets that a program may have at once: replies, and two that are served. */
#define OWN_SOCKETS_MAX 34

/*
 * A datagram socket bound to a fresh name in /tmp, for its owner only (mode 0600), or -1 with
 * errno. Close-on-exec, as those below.
 */
int bind_reply_socket();

/*
 * A datagram socket bound to `path` as ipc_open_sock() does it: a file that nobody serves is
 * replaced, one that is served or no socket is left alone. -1, said, when it cannot be served;
 * `server` names who may be serving it, for that message.
 */
int serve_socket(const char *path, const char *server);

/* The same without a word; errno is set. */
int try_to_serve_socket(const char *path);

/* Removes the file of one of them and closes it. Nothing happens when `fd` is negative. */
void close_own_socket(int fd);

/* Removes the files of all of them. */
void remove_own_sockets();

#endif
