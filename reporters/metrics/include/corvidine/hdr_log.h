/*
 * Log encoding of an HDR histogram: the text that goes into a metrics
 * message, readable by any HdrHistogram implementation.
 *
 * The text is base64 (standard alphabet, padded) of a compressed record:
 *   int32 compressed cookie 0x1c849314, int32 length of what follows,
 *   the zlib stream (RFC 1950) of the V2 encoding:
 *     int32 encoding cookie 0x1c849313, int32 payload length in bytes,
 *     int32 normalizing index offset (0), int32 significant figures,
 *     int64 lowest trackable value, int64 highest trackable value,
 *     double integer-to-double conversion ratio (1.0),
 *     then the counts from index 0 through the largest value's index, each a
 *     zigzag LEB128 number (at most 9 bytes, the ninth carrying 8 bits), where
 *     a negative number -n stands for a run of n zero counts.
 * All integers big-endian. The encoding of a histogram depends only on its
 * parameters and counts, so encode → decode → encode gives the same text.
 *
 * Threads: as for the histogram (encode reads it, decode makes a new one).
 */
#ifndef CORVIDINE_HDR_LOG_H
#define CORVIDINE_HDR_LOG_H

#include <stddef.h>

#include "corvidine/hdr_histogram.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HDR_V2_ENCODING_COOKIE 0x1c849313
#define HDR_V2_COMPRESSED_COOKIE 0x1c849314

/* Codec errors, a range of their own (-30000 … -30099). */
#define HDR_LOG_INVALID_BASE64 (-30001)     /* not padded standard base64 */
#define HDR_LOG_COMPRESSED_COOKIE (-30002)  /* not a compressed V2 record, or cut short */
#define HDR_LOG_ENCODING_COOKIE (-30003)    /* inflated data is not a V2 encoding */
#define HDR_LOG_INFLATE_FAILED (-30004)     /* zlib stream broken or shorter than it says */
#define HDR_LOG_DEFLATE_FAILED (-30005)     /* zlib refused to compress */
#define HDR_LOG_UNSUPPORTED_HEADER (-30006) /* parameters no histogram here can have */
#define HDR_LOG_INVALID_PAYLOAD (-30007)    /* counts cut short, beyond the array, or overflowing */
#define HDR_LOG_NO_MEMORY (-30008)

/* Encodes h into a new NUL-terminated string (*encoded, freed by the caller
 * with free()). Returns 0, or a code above with *encoded untouched. */
int hdr_log_encode(const struct hdr_histogram *h, char **encoded);

/* Decodes base64_len characters into a new histogram (*histogram, freed with
 * hdr_close) with the encoded parameters and counts; its min and max are the
 * bounds of the lowest and highest counted slots. Returns 0, or a code above
 * with *histogram untouched. Any input is safe to pass. */
int hdr_log_decode(struct hdr_histogram **histogram, const char *base64_histogram, size_t base64_len);

/* A short English description of a code of hdr_log_encode / hdr_log_decode. */
const char *hdr_log_strerror(int code);

#ifdef __cplusplus
}
#endif

#endif
