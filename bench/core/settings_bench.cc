// Settings table lookups with a full table: the record of a service (with
// its fallback to the default) and the service's layer entry.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "corvidine/settings.h"

namespace {

const double kCaps[3] = {100, 100, 100};
const double kRates[3] = {10, 10, 10};

// Service names of realistic shape that share a long prefix, so that a
// lookup cannot tell them apart by their first characters.
std::vector<std::string> service_names(int n) {
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) names.push_back("checkout-service-production-" + std::to_string(1000 + i));
    return names;
}

// 124 live records: the default and 123 services.
std::vector<std::string> fill_records() {
    vesk_settings_init_local();
    _vesk_settings_reset();
    vesk_settings_add("", VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, 1000000, 0x14, 1, 60, kCaps, kRates,
                      nullptr, 0);
    std::vector<std::string> names = service_names(VESK_SETTINGS_MAX_RECORDS - 1);
    for (const std::string &n : names)
        vesk_settings_add(n.c_str(), VESK_SETTINGS_TYPE_LAYER_SAMPLE_RATE, 500000, 0x14, 1, 60, kCaps, kRates,
                          "k", 0);
    return names;
}

// Cycles through every service, so the average position is mid-table.
void BM_SettingsLayerSampleRate124(benchmark::State &state) {
    std::vector<std::string> names = fill_records();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vesk_settings_get_layer_sample_rate(names[i].c_str()));
        if (++i == names.size()) i = 0;
    }
}
BENCHMARK(BM_SettingsLayerSampleRate124)->Repetitions(5)->ReportAggregatesOnly(true);

// The last record, and a name with no record (whole scan, then the default).
void BM_SettingsLayerSampleRate124Worst(benchmark::State &state) {
    std::vector<std::string> names = fill_records();
    const std::string missing = "checkout-service-production-9999";
    bool last = true;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            vesk_settings_get_layer_sample_rate(last ? names.back().c_str() : missing.c_str()));
        last = !last;
    }
}
BENCHMARK(BM_SettingsLayerSampleRate124Worst)->Repetitions(5)->ReportAggregatesOnly(true);

// 124 layer entries in use, looked up in turn.
void BM_SettingsEntryLayerGet124(benchmark::State &state) {
    vesk_settings_init_local();
    _vesk_settings_reset();
    std::vector<std::string> names = service_names(VESK_SETTINGS_MAX_LAYERS);
    for (const std::string &n : names) vesk_settings_entry_layer_get(n.c_str());
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vesk_settings_entry_layer_get(names[i].c_str()));
        if (++i == names.size()) i = 0;
    }
}
BENCHMARK(BM_SettingsEntryLayerGet124)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
