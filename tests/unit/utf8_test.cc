// UTF-8 checks, and request bytes reaching an event as valid BSON strings.

#include "corvidine/event.h"
#include "corvidine/utf8.h"
#include "support/harness.h"

namespace {

size_t prefix(const std::string &s) { return vesk_utf8_valid_prefix(s.data(), s.size()); }

TEST(Utf8, WellFormedSequencesPass) {
    for (std::string s : {"", "plain ascii", "caf\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xEF\xBF\xBD",
                          "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(s.size(), prefix(s)) << s;
}

TEST(Utf8, IllFormedSequencesStopThePrefix) {
    EXPECT_EQ(1u, prefix("a\x80"));                 // lone continuation byte
    EXPECT_EQ(0u, prefix("\xC0\xAF"));              // overlong '/'
    EXPECT_EQ(0u, prefix("\xE0\x80\xAF"));          // overlong
    EXPECT_EQ(0u, prefix("\xED\xA0\x80"));          // surrogate
    EXPECT_EQ(0u, prefix("\xF4\x90\x80\x80"));      // above U+10FFFF
    EXPECT_EQ(2u, prefix("ab\xE2\x82"));            // cut short
    EXPECT_EQ(0u, prefix("\xFF"));
}

TEST(Utf8, BadBytesAreFoundAtAnyOffsetBehindLongAscii) {
    for (size_t k = 0; k < 20; ++k) {
        std::string ascii(k, 'a');
        EXPECT_EQ(k, prefix(ascii + "\xFF" + std::string(9, 'b'))) << k;
        EXPECT_EQ(k + 11, prefix(ascii + "\xC3\xA9" + std::string(9, 'b'))) << k;
    }
}

TEST(Utf8, SanitizeReplacesOnlyTheBadBytes) {
    std::string in = "ok\xFF\xC3\xA9\xE2\x82";
    char out[16];
    ASSERT_EQ(in.size(), vesk_utf8_sanitize(in.data(), in.size(), out));
    EXPECT_EQ(std::string("ok?\xC3\xA9??"), std::string(out));
}

TEST(Utf8, EventStringsFromRawBytesDecodeStrictly) {
    corvidine_test::CaptureReporter reporter;
    vesk_metadata_t md = corvidine_test::sampled_metadata();
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md, &evt));
    std::string hostile = "custom-\xFF\xFE value \xC0\xAF and " + std::string(300, '\x9F');
    ASSERT_EQ(0, vesk_event_add_info(&evt, "Header", hostile.c_str()));
    ASSERT_GT(vesk_event_send(VESK_SEND_EVENT, &evt, &md), 0);
    auto docs = corvidine_test::decode_bson(reporter.documents[0].second);  // strict decoder
    ASSERT_EQ(1u, docs.size());
    EXPECT_NE(std::string::npos, docs[0].find("custom-?? value ?? and ???")) << docs[0];
    vesk_event_destroy(&evt);
}

}  // namespace
