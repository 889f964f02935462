/*
 * High-dynamic-range histogram of response times: a fixed array of counts
 * whose buckets keep a given number of significant decimal digits over the
 * whole range, so a record is an index computation and an increment, with no
 * allocation. The metric sender keeps one per service and transaction and
 * sends them in the log encoding of hdr_log.h.
 *
 * Layout: value v falls into bucket b (each twice as wide as the one before)
 * and sub-bucket s; the counts of the lower half of every bucket but the first
 * are never used, since those values land in the bucket below, so each bucket
 * after the first takes half a bucket's room in the array.
 *
 * Threads: a histogram belongs to one thread at a time and has no lock;
 * different histograms may be used from different threads at once.
 */
#ifndef CORVIDINE_HDR_HISTOGRAM_H
#define CORVIDINE_HDR_HISTOGRAM_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The bounds the agent uses: 1 µs to one hour in µs. */
#define HDR_LOWEST_TRACKABLE_VALUE 1
#define HDR_HIGHEST_TRACKABLE_VALUE 3600000000LL

/* Read-only for callers; changed only through the functions below. */
struct hdr_histogram {
    int64_t lowest_trackable_value;  /* resolution: values below it share bucket 0's first slots */
    int64_t highest_trackable_value; /* largest value recorded; larger ones are refused */
    int32_t significant_figures;     /* 1..5 */
    int32_t unit_magnitude;          /* floor(log2(lowest_trackable_value)) */
    int32_t sub_bucket_half_count_magnitude;
    int32_t sub_bucket_count; /* slots per bucket, a power of two */
    int32_t sub_bucket_half_count;
    int32_t bucket_count;
    int64_t sub_bucket_mask;
    int32_t counts_len;
    int64_t total_count;
    int64_t min_value; /* smallest value recorded (INT64_MAX when none) */
    int64_t max_value; /* largest value recorded (0 when none) */
    int64_t *counts;
};

/* Makes an empty histogram for values up to highest_trackable_value, at
 * lowest_trackable_value's resolution (>= 1; highest must be at least twice
 * it) and 1..5 significant figures. Returns 0 and sets *result, EINVAL for
 * bad parameters, ENOMEM when memory runs out (*result untouched). Any thread. */
int hdr_init(int64_t lowest_trackable_value, int64_t highest_trackable_value, int significant_figures,
             struct hdr_histogram **result);

/* Frees the histogram; null is ignored. Owner thread. */
void hdr_close(struct hdr_histogram *h);

/* Counts one value. Only 0..highest_trackable_value are counted: anything
 * else returns false and changes nothing. Owner thread. */
bool hdr_record_value(struct hdr_histogram *h, int64_t value);

/* Empties the histogram; its parameters stay. Owner thread. */
void hdr_reset(struct hdr_histogram *h);

/* Queries, any thread that may read the histogram. Values are reported as
 * their bucket's bounds, as every reader of the encoding will see them:
 * hdr_min the lowest value equivalent to the smallest recorded, hdr_max the
 * highest equivalent to the largest; both 0 when empty. */
int64_t hdr_min(const struct hdr_histogram *h);
int64_t hdr_max(const struct hdr_histogram *h);

/* Highest value equivalent to the one at the given percentile (0..100): the
 * value of rank max(1, ceil(percentile / 100 * total_count)); 0 when empty. */
int64_t hdr_value_at_percentile(const struct hdr_histogram *h, double percentile);

/* Bucket arithmetic: the index of a value in counts (which must be within
 * 0..highest_trackable_value), the lowest value of an index, and the bounds
 * of the range of values that share a value's slot. */
int32_t hdr_counts_index_for(const struct hdr_histogram *h, int64_t value);
int64_t hdr_value_at_index(const struct hdr_histogram *h, int32_t index);
int64_t hdr_lowest_equivalent_value(const struct hdr_histogram *h, int64_t value);
int64_t hdr_highest_equivalent_value(const struct hdr_histogram *h, int64_t value);

#ifdef __cplusplus
}
#endif

#endif
