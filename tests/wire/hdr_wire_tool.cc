// Histogram encodings for the wire checks, one histogram per input line.
//   hdr_wire_tool encode   reads "FIGURES V1 V2 …", records the values (those
//                          out of bounds are refused), prints "BASE64 STATS"
//   hdr_wire_tool decode   reads "BASE64", prints "STATS" or "error CODE"
// STATS: total count, smallest non-zero value, max, then the value at each
// percentile of kPercentiles; what every reader of the encoding must agree on.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <iostream>
#include <sstream>
#include <string>

#include "corvidine/hdr_histogram.h"
#include "corvidine/hdr_log.h"

namespace {

std::string stats(const hdr_histogram *h) {
    int64_t min_nonzero = 0;
    for (int32_t i = 1; i < h->counts_len && h->total_count > 0; ++i)
        if (h->counts[i] > 0) {
            min_nonzero = hdr_value_at_index(h, i);
            break;
        }
    std::ostringstream out;
    out << h->total_count << ' ' << min_nonzero << ' ' << hdr_max(h);
    if (h->total_count > 0) {
        for (int p = 1; p <= 100; ++p) out << ' ' << hdr_value_at_percentile(h, p);
        out << ' ' << hdr_value_at_percentile(h, 0.1) << ' ' << hdr_value_at_percentile(h, 99.9);
    }
    return out.str();
}

}  // namespace

int main(int argc, char **argv) {
    const bool encode = argc == 2 && strcmp(argv[1], "encode") == 0;
    if (!encode && !(argc == 2 && strcmp(argv[1], "decode") == 0)) {
        fprintf(stderr, "usage: %s encode|decode < lines\n", argv[0]);
        return 2;
    }
    std::string line;
    while (std::getline(std::cin, line)) {
        hdr_histogram *h = nullptr;
        if (encode) {
            std::istringstream in(line);
            int figures = 0;
            in >> figures;
            if (hdr_init(HDR_LOWEST_TRACKABLE_VALUE, HDR_HIGHEST_TRACKABLE_VALUE, figures, &h) != 0) return 1;
            long long v;
            while (in >> v) hdr_record_value(h, v);
            char *text = nullptr;
            int rc = hdr_log_encode(h, &text);
            if (rc != 0) return 1;
            std::cout << text << ' ' << stats(h) << '\n';
            free(text);
        } else {
            int rc = hdr_log_decode(&h, line.data(), line.size());
            if (rc != 0) {
                std::cout << "error " << rc << '\n';
                continue;
            }
            std::cout << stats(h) << '\n';
        }
        hdr_close(h);
    }
    return 0;
}
