// Cleaning of service keys.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "corvidine/span.h"

namespace {

struct Case {
    const char *in;
    const char *out;
    int result;
};

TEST(ServiceName, CleaningTable) {
    const Case cases[] = {
        {"token:My App!", "token:my-app", 1},
        {"token:ok-1.a_b", "token:ok-1.a_b", 0},
        // No colon: the first character is never changed.
        {"Abc", "Abc", 0},
        {"ABC", "Abc", 1},
        {"!bc", "!bc", 0},
        {"a", "a", 0},
        // The token before the first colon is left alone; later colons are kept.
        {"TOKEN:Svc", "TOKEN:svc", 1},
        {"T o!k:A:B", "T o!k:a:b", 1},
        {":X", ":x", 1},
        {"tok:", "tok:", 0},
        // Runs of removed characters: each one is looked at after the shift.
        {"tok:a!!!b", "tok:ab", 1},
        {"tok:a!@#$%^&*()b", "tok:ab", 1},
        {"tok:abc!!!", "tok:abc", 1},
        {"tok:!!!", "tok:", 1},
        {"tok:a  b", "tok:a--b", 1},
        {"tok:a/b\\c", "tok:abc", 1},
        // Bytes above 127 (UTF-8 here) are removed, not lowered.
        {"tok:caf\xc3\xa9", "tok:caf", 1},
        {"tok:\377A", "tok:a", 1},
    };
    for (const Case &c : cases) {
        std::string buf(c.in);
        buf.push_back('\0');
        int length = -7;
        EXPECT_EQ(vesk_validate_transform_service_name(&buf[0], &length), c.result) << "input " << c.in;
        EXPECT_STREQ(buf.c_str(), c.out) << "input " << c.in;
        EXPECT_EQ(length, static_cast<int>(strlen(c.out))) << "input " << c.in;
    }
}

TEST(ServiceName, RefusesNullAndEmpty) {
    int length = 42;
    char empty[] = "";
    EXPECT_EQ(vesk_validate_transform_service_name(empty, &length), -1);
    EXPECT_EQ(length, 42);
    EXPECT_EQ(vesk_validate_transform_service_name(nullptr, &length), -1);
    char name[] = "tok:Svc";
    EXPECT_EQ(vesk_validate_transform_service_name(name, nullptr), -1);
    EXPECT_STREQ(name, "tok:Svc");
}

}  // namespace
