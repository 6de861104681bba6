#include "core/signals.h"

#include <signal.h>

void pelkin_ignore_sigpipe(void)
{
    (void)signal(SIGPIPE, SIG_IGN);
}
