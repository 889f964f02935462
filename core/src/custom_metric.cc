// The user API's custom metrics, handed to the current reporter.
#include "corvidine/custom_metric.h"

#include "corvidine/startup.h"

namespace {

int add(const char *name, double value, int count, int host_tag, const char *service_name, int summary,
        const vesk_metric_tag_t *tags, size_t tags_count) {
    vesk_reporter_t *reporter = vesk_reporter_get();
    if (reporter == nullptr || reporter->add_custom_metric == nullptr || name == nullptr) return 0;
    if (service_name != nullptr && service_name[0] == '\0') service_name = nullptr;
    return reporter->add_custom_metric(vesk_reporter_get_context(reporter), name, value, count, host_tag,
                                       service_name, summary, tags, tags_count);
}

}  // namespace

extern "C" int vesk_custom_metric_summary(const char *name, double value, int count, int host_tag,
                                          const char *service_name, const vesk_metric_tag_t *tags,
                                          size_t tags_count) {
    return add(name, value, count, host_tag, service_name, 1, tags, tags_count);
}

extern "C" int vesk_custom_metric_increment(const char *name, int count, int host_tag, const char *service_name,
                                            const vesk_metric_tag_t *tags, size_t tags_count) {
    return add(name, 0, count, host_tag, service_name, 0, tags, tags_count);
}
