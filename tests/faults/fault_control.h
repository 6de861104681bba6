/* Steers tests/faults/preload.c in a daemon, which maps the file that PELKIN_FAULT_CONTROL names.
 */
#ifndef PELKIN_TESTS_FAULTS_FAULT_CONTROL_H
#define PELKIN_TESTS_FAULTS_FAULT_CONTROL_H

#include <stdint.h>

struct fault_control {
    int32_t first_failing;  /* allocation, counted from 1; 0: none does */
    int32_t failing;        /* how many fail from there on */
    int32_t made;           /* allocations since this was last set to 0, counted in the daemon */
    int32_t clock_offset_s; /* added to time() */
};

#endif
