/*
 * The two runtime switches. Written by the main thread, read by the intake and by the workers;
 * plain words, so read and write them with the relaxed atomic built-ins.
 */
#ifndef PELKIN_CORE_SWITCHES_H
#define PELKIN_CORE_SWITCHES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1: token verification requests are dropped at the intake. 0 at start. */
extern uint32_t ignore_fb_token_verification;

/* 1: answers that ask for the daemon's analysis are not analysed. 0 at start. */
extern uint32_t ignore_fb_token_verification_result;

static inline int pelkin_switch_is_on(const uint32_t *which)
{
    return __atomic_load_n(which, __ATOMIC_RELAXED) != 0;
}

#ifdef __cplusplus
}
#endif
#endif
