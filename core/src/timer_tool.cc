#include "corvidine/timer_tool.h"

#include <errno.h>
#include <time.h>

extern "C" void vesk_timer_tool_wait(long microseconds) {
    if (microseconds <= 0) return;
    struct timespec left = {microseconds / 1000000, (microseconds % 1000000) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
