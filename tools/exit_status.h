/* What pelkinctl tells its caller. Part of its interface: pelkinctl(1) lists the same. */
#ifndef PELKIN_TOOLS_EXIT_STATUS_H
#define PELKIN_TOOLS_EXIT_STATUS_H

enum exit_status {
    STATUS_DONE = 0,        /* answered, or handed over when there is nothing to wait for */
    STATUS_USAGE = 1,       /* wrong usage, or standard output or a local file failed */
    STATUS_UNREACHABLE = 2, /* no daemon, or a socket to be served is served already */
    STATUS_NO_ANSWER = 3,   /* nothing came within the time-out */
    STATUS_FAILED = 4,      /* the daemon could not do it; why has been said */
};

#endif
