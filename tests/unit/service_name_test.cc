// Cleaning of service keys.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "corvidine/span.h"

namespace {

TEST(ServiceName, CleaningTable) {
    const struct {
        const char *in, *out;
        int result;
    } cases[] = {
        {"token:My App!", "token:my-app", 1}, {"token:ok-1.a_b", "token:ok-1.a_b", 0},
        // No colon: the first character is never changed.
        {"Abc", "Abc", 0}, {"ABC", "Abc", 1}, {"!bc", "!bc", 0},
        // The token before the first colon is left alone; later colons are kept.
        {"T o!k:A:B", "T o!k:a:b", 1}, {":X", ":x", 1}, {"tok:", "tok:", 0},
        // Runs of removed characters: each one is looked at after the shift.
        {"tok:a!@#$%^&*()b", "tok:ab", 1}, {"tok:abc!!!", "tok:abc", 1}, {"tok:!!!", "tok:", 1},
        {"tok:a  b", "tok:a--b", 1}, {"tok:a/b\\c", "tok:abc", 1},
        // Bytes above 127 are removed, not lowered.
        {"tok:caf\xc3\xa9", "tok:caf", 1}, {"tok:\377A", "tok:a", 1},
    };
    for (const auto &c : cases) {
        std::string buf(c.in);
        int length = -7;
        EXPECT_EQ(c.result, vesk_validate_transform_service_name(&buf[0], &length)) << c.in;
        EXPECT_STREQ(c.out, buf.c_str()) << c.in;
        EXPECT_EQ(static_cast<int>(strlen(c.out)), length) << c.in;
    }
    int length = 42;
    char empty[] = "", name[] = "tok:Svc";
    EXPECT_EQ(-1, vesk_validate_transform_service_name(empty, &length));
    EXPECT_EQ(-1, vesk_validate_transform_service_name(nullptr, &length));
    EXPECT_EQ(-1, vesk_validate_transform_service_name(name, nullptr));
    EXPECT_EQ(42, length);
}

}  // namespace
