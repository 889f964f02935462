/* A blocking wait for the profiler's clock thread. */
#ifndef CORVIDINE_TIMER_TOOL_H
#define CORVIDINE_TIMER_TOOL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Blocks the calling thread for `microseconds`; interruptions are resumed. */
void vesk_timer_tool_wait(long microseconds);

#ifdef __cplusplus
}
#endif

#endif
