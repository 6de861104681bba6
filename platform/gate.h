/*
 * A gate in front of something that several threads use and one thread closes: closing waits until
 * nobody is inside. A user counts itself before it looks whether the gate is closed, the closer
 * says so before it looks at the count. Both with sequentially consistent operations, or each could
 * miss the other's store. No lock, and entering never waits.
 */
#ifndef PELKIN_PLATFORM_GATE_H
#define PELKIN_PLATFORM_GATE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* All zeros: open, nobody inside. */
struct gate {
    uint32_t inside;
    uint32_t is_closed;
};

static inline int gate_is_open(const struct gate *gate)
{
    return __atomic_load_n(&gate->is_closed, __ATOMIC_SEQ_CST) == 0;
}

/* Whether the gate is open. Either way the caller counts as inside until gate_leave(). */
static inline int gate_enter(struct gate *gate)
{
    (void)__atomic_add_fetch(&gate->inside, 1, __ATOMIC_SEQ_CST);
    return gate_is_open(gate);
}

static inline void gate_leave(struct gate *gate)
{
    (void)__atomic_sub_fetch(&gate->inside, 1, __ATOMIC_SEQ_CST);
}

/* Closes the gate, and returns once nobody is inside who found it open. */
void gate_close(struct gate *gate);

/* Opens it again. Only for the thread that closed it. */
static inline void gate_open(struct gate *gate)
{
    __atomic_store_n(&gate->is_closed, 0, __ATOMIC_SEQ_CST);
}

#ifdef __cplusplus
}
#endif
#endif
