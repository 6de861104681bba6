#include "core/daemon/main_loop.h"
#include "core/daemon/startup.h"
#include "platform/process_start.h"

// The daemon takes no arguments. It ends with 0 in every case that reaches the shutdown.
int main()
{
    make_up_for_a_poor_start();
    if (pelkin_init() == 0) {
        pelkin_main_loop();
    }
    pelkin_shutdown();
    return 0;
}
