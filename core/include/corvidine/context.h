/*
 * The per-thread context: the identifier that says where this thread is in
 * its trace. Each thread has its own record; no locks.
 */
#ifndef CORVIDINE_CONTEXT_H
#define CORVIDINE_CONTEXT_H

#include "corvidine/metadata.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ensures library start-up, returns this thread's record (created fresh on
 * first use: valid only once it gets a task id). */
vesk_metadata_t *vesk_context_get(void);
/* Copies md into this thread's record. */
void vesk_context_set(const vesk_metadata_t *md);
/* Parses into a fresh record and, on success only, copies it in. 0 or -1. */
int vesk_context_set_fromstr(const char *buf, size_t len);
/* Drops this thread's record; the next vesk_context_get starts fresh. */
void vesk_context_clear(void);
int vesk_context_is_valid(void);
int vesk_context_is_sampled(void);

/* Start-up only: creates the thread key (called from the one-time set-up). */
void vesk_context_init_key(void);
/* Key destructor: destroys and frees a record. */
void vesk_context_destroy(vesk_metadata_t *md);

#ifdef __cplusplus
}
#endif

#endif
