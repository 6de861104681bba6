/* What the daemon does with signals. Main thread. */
#ifndef PELKIN_CORE_SIGNALS_H
#define PELKIN_CORE_SIGNALS_H

#ifdef __cplusplus
extern "C" {
#endif

/* From now on a write to a closed pipe or socket fails with EPIPE instead of ending the process. */
void pelkin_ignore_sigpipe(void);

#ifdef __cplusplus
}
#endif
#endif
