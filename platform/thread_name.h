/* The name under which ps, a debugger and /proc show a thread. */
#ifndef PELKIN_PLATFORM_THREAD_NAME_H
#define PELKIN_PLATFORM_THREAD_NAME_H

#ifdef __cplusplus
extern "C" {
#endif

/* Names the calling thread; the kernel keeps 15 characters. For whoever looks at the process only.
 */
void name_this_thread(const char *name);

#ifdef __cplusplus
}
#endif
#endif
