#include "platform/gate.h"

#include <poll.h>

void gate_close(struct gate *gate)
{
    __atomic_store_n(&gate->is_closed, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&gate->inside, __ATOMIC_SEQ_CST) != 0) {
        (void)poll(nullptr, 0, 1); // milliseconds
    }
}
