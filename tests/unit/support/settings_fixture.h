// Base of the fixtures whose cases decide or wait on the settings table.
#pragma once

#include <gtest/gtest.h>

#include "corvidine/tracing_decisions.h"
#include "support/capture_reporter.h"

namespace corvidine_test {

// A capturing reporter owns the registry for the whole suite (decisions and
// the readiness wait ask it).
class SettingsFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    // The process's own table, created once, emptied here.
    static void fresh_table();
    // fresh_table() and the configuration back at its defaults; its buckets
    // take their creation time from the clock in force now.
    static void fresh_settings();

    static CaptureReporter *reporter;
};

// Decision input for a service: nothing custom, no headers.
vesk_tracing_decisions_in_t decisions_in(const char *service, int request_type = 0);

}  // namespace corvidine_test
