/* device_clock SECONDS: sets the system's clock, also beyond what 32 bits of seconds since 1970
 * hold. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const long long time[2] = {argc == 2 ? atoll(argv[1]) : 0, 0};
    if (time[0] <= 0 || syscall(SYS_clock_settime64, CLOCK_REALTIME, time) != 0) {
        perror("device_clock");
        return 1;
    }
    return 0;
}
