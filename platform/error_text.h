/* The system's text of an error number, for messages. */
#ifndef PELKIN_PLATFORM_ERROR_TEXT_H
#define PELKIN_PLATFORM_ERROR_TEXT_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The text of the errno value `error`. It is the calling thread's own and stays until that thread's
 * next call. Leaves errno as it is. Any thread; not for signal handlers.
 */
const char *error_text(int error);

#ifdef __cplusplus
}
#endif
#endif
