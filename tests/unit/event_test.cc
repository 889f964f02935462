// Events: documents checked by an independent decoder, send checks and codes.
#include <string.h>
#include <unistd.h>

#include "corvidine/event.h"
#include "support/harness.h"

using namespace corvidine_test;

namespace {

class EventTest : public ::testing::Test {
protected:
    CaptureReporter reporter_;
    vesk_metadata_t md_ = sampled_metadata();
    std::string last_document() { return decode_bson(reporter_.documents.back().second).at(0); }
};

TEST_F(EventTest, StampedKeysFrameTheCallersKeysInOrderAndTypes) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &evt));
    std::string parent_op = xtrace_of(md_).substr(42, 16), evt_id = xtrace_of(evt.metadata);
    std::string big(3000, 'x');  // grows the buffer
    EXPECT_EQ(0, vesk_event_add_info(&evt, "Layer", "php"));
    EXPECT_EQ(0, vesk_event_add_info_int64(&evt, "Big", 1LL << 40));
    EXPECT_EQ(0, vesk_event_add_info_double(&evt, "Ratio", 0.25));
    EXPECT_EQ(0, vesk_event_add_info_bool(&evt, "Flag", 5));
    EXPECT_EQ(0, vesk_event_add_info_binary(&evt, "Raw", "\x00\x01\x02", 3));
    EXPECT_EQ(0, vesk_event_add_info(&evt, "Nothing", nullptr));
    EXPECT_EQ(0, vesk_event_add_info(&evt, "Long", (big + "y").c_str()));
    int sent = vesk_event_send(VESK_SEND_STATUS, &evt, &md_);
    ASSERT_EQ(static_cast<int>(reporter_.documents.at(0).second.size()), sent);
    EXPECT_EQ(VESK_SEND_STATUS, reporter_.documents[0].first);
    std::string d = last_document();
    EXPECT_EQ(0u, d.find("[[\"_V\", [\"string\", \"1\"]], [\"X-Trace\", [\"string\", \"" + evt_id +
                         "\"]], [\"Edge\", [\"string\", \"" + parent_op +
                         "\"]], [\"Layer\", [\"string\", \"php\"]], [\"Big\", [\"int64\", 1099511627776]], "
                         "[\"Ratio\", [\"double\", 0.25]], [\"Flag\", [\"bool\", true]], "
                         "[\"Raw\", [\"binary\", \"000102\"]], [\"Long\", [\"string\", \"" + big + "y\"]], "
                         "[\"TID\", [\"int64\", " + std::to_string(gettid()) + "]], [\"Timestamp_u\", [\"int64\", "))
        << d;
    EXPECT_TRUE(has(d, "[\"Hostname\", [\"string\", \"" + std::string(vesk_hostname_get()) + "\"]]]"));
    EXPECT_EQ(0, memcmp(md_.op_id, evt.metadata.op_id, 8)) << "the send moves the caller's op id on";
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, SendChecksAndTheirCodes) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &md_, md_.op_id));  // same op id as md
    vesk_metadata_t before = md_, other = sampled_metadata(), invalid;
    vesk_metadata_init(&invalid);
    EXPECT_EQ(-1, vesk_event_send(VESK_SEND_EVENT, &evt, &md_));
    EXPECT_EQ(0, memcmp(&before, &md_, sizeof(md_)));
    EXPECT_EQ(-1, vesk_event_send(VESK_SEND_EVENT, &evt, &other)) << "another task";
    EXPECT_EQ(0, vesk_event_send(VESK_SEND_EVENT, &evt, &invalid));
    EXPECT_EQ(VESK_SEND_MISSING_PARAMETERS, vesk_event_send(VESK_SEND_EVENT, nullptr, &md_));
    EXPECT_EQ(-1, vesk_event_add_edge(&evt, &other)) << "an edge from another task";
    EXPECT_TRUE(reporter_.documents.empty());
    vesk_event_destroy(&evt);
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &evt));
    vesk_metadata_t copy = md_;
    reporter_.send_result = 10;
    EXPECT_EQ(10, vesk_event_send(VESK_SEND_EVENT, &evt, &md_)) << "a short result is passed on";
    EXPECT_LT(vesk_event_send(VESK_SEND_EVENT, &evt, &copy), 0) << "an event goes once";
    EXPECT_EQ(1u, reporter_.documents.size());
    vesk_event_destroy(&evt);
    ASSERT_EQ(0, vesk_event_init(&evt, &invalid, nullptr));
    size_t size = vesk_bson_buffer_size(&evt.buffer);
    EXPECT_EQ(0, vesk_event_add_info(&evt, "k", "v"));
    EXPECT_EQ(size, vesk_bson_buffer_size(&evt.buffer)) << "an invalid event ignores additions";
    vesk_event_destroy(&evt);
}

}  // namespace
