/* What a process makes up for that was started carelessly. */
#ifndef PELKIN_PLATFORM_PROCESS_START_H
#define PELKIN_PLATFORM_PROCESS_START_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Opens those of the descriptors 0 to 2 that are missing on the null device, so that no file or
 * socket of the process ever gets their numbers and what is printed; as far as there is a null
 * device. Unblocks every signal that the parent left blocked. First of all, on the only thread.
 */
void make_up_for_a_poor_start(void);

#ifdef __cplusplus
}
#endif
#endif
