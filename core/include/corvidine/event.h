/*
 * Events: one BSON document each, linked to predecessors by Edge keys.
 *
 * Keys in order: _V, X-Trace, the caller's keys, then TID, Timestamp_u and
 * Hostname added by vesk_event_send. An event is built and sent by one
 * thread. Adding to an event with an invalid identifier is a silent no-op
 * returning 0.
 */
#ifndef CORVIDINE_EVENT_H
#define CORVIDINE_EVENT_H

#include <stddef.h>
#include <stdint.h>

#include "corvidine/bson.h"
#include "corvidine/metadata.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Send channels */
#define VESK_SEND_EVENT 0
#define VESK_SEND_STATUS 1
#define VESK_SEND_PROFILING 2

typedef struct vesk_event {
    vesk_metadata_t metadata;
    vesk_bson_buffer buffer;
    char *document; /* null until vesk_event_send finished it */
} vesk_event_t;

/* Takes task id, lengths, version and flags from md, op id from op_id (8
 * bytes) or at random; writes _V and X-Trace. 0 or -1 (nothing to destroy). */
int vesk_event_init(vesk_event_t *evt, const vesk_metadata_t *md, const uint8_t *op_id);
/* vesk_event_init with a random op id, then an Edge to md. 0 or -1. */
int vesk_metadata_create_event(const vesk_metadata_t *md, vesk_event_t *evt);
int vesk_event_destroy(vesk_event_t *evt);

int vesk_event_add_info(vesk_event_t *evt, const char *key, const char *value);
int vesk_event_add_info_binary(vesk_event_t *evt, const char *key, const void *value, size_t len);
int vesk_event_add_info_int64(vesk_event_t *evt, const char *key, int64_t value);
int vesk_event_add_info_double(vesk_event_t *evt, const char *key, double value);
int vesk_event_add_info_bool(vesk_event_t *evt, const char *key, int value);
int vesk_event_add_info_bson(vesk_event_t *evt, const char *key, const vesk_bson *value);
/* Edge = md's op id in hex; -1 when md belongs to another task. */
int vesk_event_add_edge(vesk_event_t *evt, const vesk_metadata_t *md);
int vesk_event_add_edge_fromstr(vesk_event_t *evt, const char *buf, size_t len);
/* TID and Timestamp_u; Hostname. Used by vesk_event_send. */
int vesk_event_add_timestamp(vesk_event_t *evt);
int vesk_event_add_hostname(vesk_event_t *evt);

/* Stamps, finishes and hands the document to the current reporter on
 * `channel`. On success md's op id becomes the event's (also when the hand
 * over fails). Returns the reporter's byte count, 0 when md is invalid
 * (nothing sent), -101 for null arguments, -1 for a task/op id mismatch, or a
 * negative send result. */
int vesk_event_send(int channel, vesk_event_t *evt, vesk_metadata_t *md);

#ifdef __cplusplus
}
#endif

#endif
