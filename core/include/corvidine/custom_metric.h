/*
 * Custom metrics: values the application records through the user API. They
 * go to the current reporter, which queues them for its metric thread; the
 * Collector reporter aggregates them and sends them once per metrics
 * interval, the local reporters drop them.
 *
 * Threads: called on request threads; the reporter's queue has its own lock.
 */
#ifndef CORVIDINE_CUSTOM_METRIC_H
#define CORVIDINE_CUSTOM_METRIC_H

#include <stddef.h>

#include "corvidine/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A summary: `value` observed `count` times. Tags with an empty key or value
 * are left out; a null or empty service_name names no service. Non-zero when
 * the reporter queued the metric; 0 without a reporter, over the tag limit,
 * or while the reporter's queue is full. */
int vesk_custom_metric_summary(const char *name, double value, int count, int host_tag, const char *service_name,
                               const vesk_metric_tag_t *tags, size_t tags_count);

/* An increment: a count only (no sum). Same rules and result. */
int vesk_custom_metric_increment(const char *name, int count, int host_tag, const char *service_name,
                                 const vesk_metric_tag_t *tags, size_t tags_count);

#ifdef __cplusplus
}
#endif

#endif
