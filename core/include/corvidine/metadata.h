/*
 * The X-Trace identifier record and its two wire forms.
 *
 * Binary form: header byte, task id, op id, flags. String form: every byte of
 * the binary form as two upper-case hex digits; 60 characters by default.
 *
 * Threads: records are plain values; any thread may use its own.
 * A null record or buffer is a programming error (assertion).
 */
#ifndef CORVIDINE_METADATA_H
#define CORVIDINE_METADATA_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_XTRACE_VERSION 2
#define VESK_MAX_TASK_ID_LEN 20
#define VESK_MAX_OP_ID_LEN 8
#define VESK_MAX_METADATA_PACK_LEN 512
/* 60 digits and a NUL, with room to spare; callers pass at least this. */
#define VESK_MAX_METADATA_STRING_LEN 64
#define VESK_XTRACE_FLAG_SAMPLED 0x01

typedef struct vesk_metadata {
    uint8_t version;
    uint8_t task_id[VESK_MAX_TASK_ID_LEN];
    uint8_t op_id[VESK_MAX_OP_ID_LEN];
    size_t task_len;
    size_t op_len;
    uint8_t flags;
} vesk_metadata_t;

/* Version 2, lengths 20 and 8, zero ids and flags (so: not valid). Returns 0. */
int vesk_metadata_init(vesk_metadata_t *md);
/* Owns nothing; logs and returns 0. */
int vesk_metadata_destroy(vesk_metadata_t *md);
/* Whole-record copy. Returns 0. */
int vesk_metadata_copy(vesk_metadata_t *to, const vesk_metadata_t *from);
/* Sets the id lengths (asserted: task 4/8/12/20, op 4/8). Returns 0. */
int vesk_metadata_set_lengths(vesk_metadata_t *md, size_t task_len, size_t op_len);
/* Fills task and op id with random bytes; flags, version, lengths stay. */
int vesk_metadata_random(vesk_metadata_t *md);
/* 1 when the 20 task-id bytes are not all zero. */
int vesk_metadata_is_valid(const vesk_metadata_t *md);
/* flags & 1 */
int vesk_metadata_is_sampled(const vesk_metadata_t *md);

/* Writes the string form and a NUL into buf. 0, or -1 when len is below the
 * binary length. Pass len >= VESK_MAX_METADATA_STRING_LEN. */
int vesk_metadata_tostr(const vesk_metadata_t *md, char *buf, size_t len);
/* Parses the string form (upper-case hex, even length, at most 1024 digits,
 * length matching the header). 0 or -1. Start from an initialised record:
 * id bytes beyond the parsed lengths are left as they were. */
int vesk_metadata_fromstr(vesk_metadata_t *md, const char *buf, size_t len);

/* Hex codecs. btoh writes 2*len digits (no NUL) and is safe in place when
 * hex == bytes. htob converts len/2 pairs of upper-case digits; 0 or -1. */
void vesk_btoh(const uint8_t *bytes, char *hex, size_t len);
int vesk_htob(const char *hex, size_t len, uint8_t *bytes);

#ifdef __cplusplus
}
#endif

#endif
