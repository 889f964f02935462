/*
 * Random sources. Identifiers come from the kernel (getrandom); the sampling dice comes from
 * a cheap per-thread generator that never feeds identifiers.
 */
#ifndef CORVIDINE_RANDOM_H
#define CORVIDINE_RANDOM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Unpredictable bytes; 1 on success, 0 on failure. Any thread. */
int vesk_random_memory(void *buf, int len);
int vesk_random_task_id(uint8_t *buf); /* 20 bytes */
int vesk_random_op_id(uint8_t *buf);   /* 8 bytes */

/* Next value of this thread's private generator, 0 .. 2^31-1. The first
 * draw on a thread seeds it. */
int vesk_rand_get_value(void);

#ifdef __cplusplus
}
#endif

#endif
