#include "support/settings_fixture.h"

#include <string.h>

#include "corvidine/settings.h"

namespace corvidine_test {

CaptureReporter *SettingsFixture::reporter = nullptr;

void SettingsFixture::SetUpTestSuite() {
    reporter = new CaptureReporter();
}

void SettingsFixture::TearDownTestSuite() {
    delete reporter;
    reporter = nullptr;
}

void SettingsFixture::fresh_table() {
    ASSERT_EQ(0, vesk_settings_init_local());
    _vesk_settings_reset();
}

void SettingsFixture::fresh_settings() {
    fresh_table();
    vesk_settings_cfg_init(vesk_settings_cfg_get());
}

vesk_tracing_decisions_in_t decisions_in(const char *service, int request_type) {
    vesk_tracing_decisions_in_t in;
    memset(&in, 0, sizeof(in));
    in.version = 2;
    in.service_name = service;
    in.custom_sample_rate = -1;
    in.custom_tracing_mode = -1;
    in.custom_trigger_mode = -1;
    in.request_type = request_type;
    return in;
}

}  // namespace corvidine_test
