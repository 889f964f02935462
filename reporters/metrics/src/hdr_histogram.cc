// HDR histogram: bucket arithmetic, record, reset and queries.
#include "corvidine/hdr_histogram.h"

#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

namespace {

int32_t bucket_index(const hdr_histogram *h, int64_t value) {
    // The mask keeps the argument of clz non-zero and puts every value below
    // sub_bucket_count (scaled by the unit) into bucket 0.
    int32_t pow2ceiling = 64 - __builtin_clzll(static_cast<uint64_t>(value | h->sub_bucket_mask));
    return pow2ceiling - h->unit_magnitude - (h->sub_bucket_half_count_magnitude + 1);
}

int32_t sub_bucket_index(const hdr_histogram *h, int64_t value, int32_t bucket) {
    return static_cast<int32_t>(value >> (bucket + h->unit_magnitude));
}

int32_t counts_index(const hdr_histogram *h, int32_t bucket, int32_t sub_bucket) {
    // Bucket b starts at (b + 1) half-buckets; its lower half is never used.
    return ((bucket + 1) << h->sub_bucket_half_count_magnitude) + (sub_bucket - h->sub_bucket_half_count);
}

int64_t size_of_equivalent_range(const hdr_histogram *h, int64_t value) {
    int32_t bucket = bucket_index(h, value);
    int32_t sub = sub_bucket_index(h, value, bucket);
    int32_t adjusted = sub >= h->sub_bucket_count ? bucket + 1 : bucket;
    return int64_t{1} << (h->unit_magnitude + adjusted);
}

// Smallest m with 2^m >= n.
int32_t ceil_log2(int64_t n) {
    int32_t m = 0;
    while ((int64_t{1} << m) < n) ++m;
    return m;
}

}  // namespace

extern "C" {

int hdr_init(int64_t lowest, int64_t highest, int significant_figures, hdr_histogram **result) {
    if (result == nullptr || lowest < 1 || significant_figures < 1 || significant_figures > 5 ||
        highest / 2 < lowest)
        return EINVAL;
    int64_t single_unit_resolution_limit = 2;
    for (int i = 0; i < significant_figures; ++i) single_unit_resolution_limit *= 10;
    int32_t sub_bucket_count_magnitude = ceil_log2(single_unit_resolution_limit);
    int32_t unit_magnitude = 63 - __builtin_clzll(static_cast<uint64_t>(lowest));
    if (unit_magnitude + sub_bucket_count_magnitude > 62) return EINVAL;

    hdr_histogram tmp;
    memset(&tmp, 0, sizeof(tmp));
    tmp.lowest_trackable_value = lowest;
    tmp.highest_trackable_value = highest;
    tmp.significant_figures = significant_figures;
    tmp.unit_magnitude = unit_magnitude;
    tmp.sub_bucket_half_count_magnitude = sub_bucket_count_magnitude - 1;
    tmp.sub_bucket_count = 1 << sub_bucket_count_magnitude;
    tmp.sub_bucket_half_count = tmp.sub_bucket_count / 2;
    tmp.sub_bucket_mask = static_cast<int64_t>(tmp.sub_bucket_count - 1) << unit_magnitude;

    // Buckets until the first value beyond the range is covered.
    int64_t smallest_untrackable = static_cast<int64_t>(tmp.sub_bucket_count) << unit_magnitude;
    int32_t buckets = 1;
    while (smallest_untrackable <= highest) {
        if (smallest_untrackable > INT64_MAX / 2) {
            ++buckets;
            break;
        }
        smallest_untrackable <<= 1;
        ++buckets;
    }
    tmp.bucket_count = buckets;
    tmp.counts_len = (buckets + 1) * tmp.sub_bucket_half_count;
    tmp.min_value = INT64_MAX;

    hdr_histogram *h = static_cast<hdr_histogram *>(malloc(sizeof(hdr_histogram)));
    int64_t *counts = static_cast<int64_t *>(calloc(static_cast<size_t>(tmp.counts_len), sizeof(int64_t)));
    if (h == nullptr || counts == nullptr) {
        free(h);
        free(counts);
        return ENOMEM;
    }
    *h = tmp;
    h->counts = counts;
    *result = h;
    return 0;
}

void hdr_close(hdr_histogram *h) {
    if (h == nullptr) return;
    free(h->counts);
    free(h);
}

bool hdr_record_value(hdr_histogram *h, int64_t value) {
    if (value < 0 || value > h->highest_trackable_value) return false;
    h->counts[hdr_counts_index_for(h, value)]++;
    h->total_count++;
    if (value < h->min_value) h->min_value = value;
    if (value > h->max_value) h->max_value = value;
    return true;
}

void hdr_reset(hdr_histogram *h) {
    memset(h->counts, 0, static_cast<size_t>(h->counts_len) * sizeof(int64_t));
    h->total_count = 0;
    h->min_value = INT64_MAX;
    h->max_value = 0;
}

int32_t hdr_counts_index_for(const hdr_histogram *h, int64_t value) {
    int32_t bucket = bucket_index(h, value);
    return counts_index(h, bucket, sub_bucket_index(h, value, bucket));
}

int64_t hdr_value_at_index(const hdr_histogram *h, int32_t index) {
    int32_t bucket = (index >> h->sub_bucket_half_count_magnitude) - 1;
    int32_t sub = (index & (h->sub_bucket_half_count - 1)) + h->sub_bucket_half_count;
    if (bucket < 0) {  // the first bucket uses both halves
        sub -= h->sub_bucket_half_count;
        bucket = 0;
    }
    return static_cast<int64_t>(sub) << (bucket + h->unit_magnitude);
}

int64_t hdr_lowest_equivalent_value(const hdr_histogram *h, int64_t value) {
    int32_t bucket = bucket_index(h, value);
    return static_cast<int64_t>(sub_bucket_index(h, value, bucket)) << (bucket + h->unit_magnitude);
}

int64_t hdr_highest_equivalent_value(const hdr_histogram *h, int64_t value) {
    return hdr_lowest_equivalent_value(h, value) + size_of_equivalent_range(h, value) - 1;
}

int64_t hdr_min(const hdr_histogram *h) {
    return h->total_count == 0 ? 0 : hdr_lowest_equivalent_value(h, h->min_value);
}

int64_t hdr_max(const hdr_histogram *h) {
    return h->total_count == 0 ? 0 : hdr_highest_equivalent_value(h, h->max_value);
}

int64_t hdr_value_at_percentile(const hdr_histogram *h, double percentile) {
    if (h->total_count == 0) return 0;
    // One step down first, so that rounding of p / 100 * n cannot push an
    // exact rank (28% of 5000 gives 1400.0000000000002) up to the next one.
    double requested = nextafter(percentile, -INFINITY);
    requested = requested < 0 ? 0 : requested > 100 ? 100 : requested;
    int64_t rank = static_cast<int64_t>(ceil(requested / 100.0 * static_cast<double>(h->total_count)));
    if (rank < 1) rank = 1;
    int64_t seen = 0;
    for (int32_t i = 0; i < h->counts_len; ++i) {
        seen += h->counts[i];
        if (seen >= rank) return hdr_highest_equivalent_value(h, hdr_value_at_index(h, i));
    }
    return hdr_max(h);
}

}  // extern "C"
