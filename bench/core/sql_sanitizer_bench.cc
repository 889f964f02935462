// SQL sanitizing: run on a private copy of every query a traced request sends.
#include <benchmark/benchmark.h>
#include <string.h>

#include <string>

#include "corvidine/sql_sanitizer.h"

namespace {

// A typical ORM statement of about 200 bytes: names, strings, numbers, an IN list.
const std::string kQuery =
    "SELECT `o`.`id`, `o`.`total`, c.name FROM orders o JOIN customers c ON c.id = o.customer_id "
    "WHERE o.status IN ('paid', 'shipped') AND c.email = 'ann@example.com' AND o.total > 25.50 "
    "LIMIT 20 OFFSET 40";

void BM_SanitizeSql200Bytes(benchmark::State &state) {
    char buf[512];
    for (auto _ : state) {
        memcpy(buf, kQuery.data(), kQuery.size());
        benchmark::DoNotOptimize(vesk_sanitize_sql(buf, kQuery.size(), VESK_SQL_DOUBLE_QUOTED_STRINGS));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kQuery.size());
    state.SetLabel(std::to_string(kQuery.size()) + " bytes");
}
BENCHMARK(BM_SanitizeSql200Bytes);

}  // namespace
