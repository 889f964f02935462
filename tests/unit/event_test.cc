// Events: documents checked by an independent decoder, send checks and codes.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "corvidine/event.h"
#include "corvidine/metadata.h"
#include "corvidine/startup.h"
#include "support/capture_reporter.h"

using corvidine_test::CaptureReporter;
using corvidine_test::decode_bson;

namespace {

class EventTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk_metadata_init(&md_);
        vesk_metadata_random(&md_);
        md_.flags = 1;
    }
    std::string xtrace(const vesk_metadata_t &md) {
        char buf[VESK_MAX_METADATA_STRING_LEN];
        vesk_metadata_tostr(&md, buf, sizeof(buf));
        return buf;
    }
    std::string op_hex(const vesk_metadata_t &md) {
        char buf[17];
        vesk_btoh(md.op_id, buf, 8);
        buf[16] = 0;
        return buf;
    }
    CaptureReporter reporter_;
    vesk_metadata_t md_;
};

TEST_F(EventTest, MinimalEventHasExactlyTheStampedKeysInOrder) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &md_, nullptr));
    std::string evt_id = xtrace(evt.metadata);
    int sent = vesk_event_send(VESK_SEND_EVENT, &evt, &md_);
    ASSERT_GT(sent, 0);
    ASSERT_EQ(1u, reporter_.documents().size());
    EXPECT_EQ(static_cast<size_t>(sent), reporter_.documents()[0].bytes.size());
    auto docs = decode_bson(reporter_.documents()[0].bytes);
    ASSERT_EQ(1u, docs.size());
    std::string host = vesk_hostname_get();
    std::string prefix = "[[\"_V\", [\"string\", \"1\"]], [\"X-Trace\", [\"string\", \"" + evt_id +
                         "\"]], [\"TID\", [\"int64\", " + std::to_string(gettid()) + "]], [\"Timestamp_u\", [\"int64\", ";
    EXPECT_EQ(prefix, docs[0].substr(0, prefix.size())) << docs[0];
    std::string suffix = "[\"Hostname\", [\"string\", \"" + host + "\"]]]";
    EXPECT_EQ(suffix, docs[0].substr(docs[0].size() - suffix.size())) << docs[0];
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, CallerKeysKeepTheirOrderAndTypes) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &evt));
    std::string parent_op = op_hex(md_);
    EXPECT_EQ(0, vesk_event_add_info(&evt, "Layer", "php"));
    EXPECT_EQ(0, vesk_event_add_info_int64(&evt, "Big", 1LL << 40));
    EXPECT_EQ(0, vesk_event_add_info_double(&evt, "Ratio", 0.25));
    EXPECT_EQ(0, vesk_event_add_info_bool(&evt, "Flag", 5));
    EXPECT_EQ(0, vesk_event_add_info_binary(&evt, "Raw", "\x00\x01\x02", 3));
    EXPECT_EQ(0, vesk_event_add_info(&evt, "Nothing", nullptr));
    ASSERT_GT(vesk_event_send(VESK_SEND_STATUS, &evt, &md_), 0);
    EXPECT_EQ(VESK_SEND_STATUS, reporter_.documents()[0].channel);
    auto docs = decode_bson(reporter_.documents()[0].bytes);
    ASSERT_EQ(1u, docs.size());
    std::string expected = "[\"Edge\", [\"string\", \"" + parent_op +
                           "\"]], [\"Layer\", [\"string\", \"php\"]], [\"Big\", [\"int64\", 1099511627776]], "
                           "[\"Ratio\", [\"double\", 0.25]], [\"Flag\", [\"bool\", true]], "
                           "[\"Raw\", [\"binary\", \"000102\"]], [\"TID\"";
    EXPECT_NE(std::string::npos, docs[0].find(expected)) << docs[0];
    EXPECT_EQ(std::string::npos, docs[0].find("Nothing"));
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, LargeDocumentGrowsAndArrivesWhole) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &md_, nullptr));
    std::string big(3000, 'x');
    big[2999] = 'y';
    size_t before = static_cast<size_t>(evt.buffer.cur - evt.buffer.data);
    ASSERT_EQ(0, vesk_event_add_info(&evt, "Big", big.c_str()));
    size_t needed = 1 + 4 + 4 + big.size() + 1;
    EXPECT_EQ(static_cast<int32_t>((1024 + needed) * 3 / 2), evt.buffer.capacity);
    EXPECT_EQ(before + needed, static_cast<size_t>(evt.buffer.cur - evt.buffer.data));
    ASSERT_GT(vesk_event_send(VESK_SEND_EVENT, &evt, &md_), 3000);
    auto docs = decode_bson(reporter_.documents()[0].bytes);
    ASSERT_EQ(1u, docs.size());
    EXPECT_NE(std::string::npos, docs[0].find(big)) << "string cut or corrupted";
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, SendMovesTheCallersOpIdOn) {
    vesk_event_t first, second;
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &first));
    ASSERT_GT(vesk_event_send(VESK_SEND_EVENT, &first, &md_), 0);
    EXPECT_EQ(0, memcmp(md_.op_id, first.metadata.op_id, 8));
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &second));
    ASSERT_GT(vesk_event_send(VESK_SEND_EVENT, &second, &md_), 0);
    auto docs = decode_bson(reporter_.documents()[1].bytes);
    EXPECT_NE(std::string::npos, docs[0].find("[\"Edge\", [\"string\", \"" + op_hex(first.metadata) + "\"]]"));
    vesk_event_destroy(&first);
    vesk_event_destroy(&second);
}

TEST_F(EventTest, SendChecksAndTheirCodes) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &md_, md_.op_id));  // same op id as md
    vesk_metadata_t before = md_;
    EXPECT_EQ(-1, vesk_event_send(VESK_SEND_EVENT, &evt, &md_));
    EXPECT_EQ(0, memcmp(&before, &md_, sizeof(md_)));

    vesk_metadata_t other;
    vesk_metadata_init(&other);
    vesk_metadata_random(&other);
    EXPECT_EQ(-1, vesk_event_send(VESK_SEND_EVENT, &evt, &other));  // another task

    vesk_metadata_t invalid;
    vesk_metadata_init(&invalid);
    EXPECT_EQ(0, vesk_event_send(VESK_SEND_EVENT, &evt, &invalid));
    EXPECT_EQ(VESK_SEND_MISSING_PARAMETERS, vesk_event_send(VESK_SEND_EVENT, nullptr, &md_));
    EXPECT_EQ(VESK_SEND_MISSING_PARAMETERS, vesk_event_send(VESK_SEND_EVENT, &evt, nullptr));
    EXPECT_TRUE(reporter_.documents().empty());
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, SecondSendOfTheSameEventFails) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &evt));
    vesk_metadata_t copy = md_;
    ASSERT_GT(vesk_event_send(VESK_SEND_EVENT, &evt, &md_), 0);
    EXPECT_LT(vesk_event_send(VESK_SEND_EVENT, &evt, &copy), 0);
    EXPECT_EQ(1u, reporter_.documents().size());
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, ShortReporterResultIsPassedOn) {
    reporter_.set_send_result(10);
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md_, &evt));
    EXPECT_EQ(10, vesk_event_send(VESK_SEND_EVENT, &evt, &md_));
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, EdgeFromAnotherTaskIsRefused) {
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &md_, nullptr));
    vesk_metadata_t other;
    vesk_metadata_init(&other);
    vesk_metadata_random(&other);
    size_t size_before = vesk_bson_buffer_size(&evt.buffer);
    EXPECT_EQ(-1, vesk_event_add_edge(&evt, &other));
    EXPECT_EQ(size_before, vesk_bson_buffer_size(&evt.buffer));
    char s[VESK_MAX_METADATA_STRING_LEN];
    vesk_metadata_tostr(&md_, s, sizeof(s));
    EXPECT_EQ(0, vesk_event_add_edge_fromstr(&evt, s, strlen(s)));
    EXPECT_EQ(-1, vesk_event_add_edge_fromstr(&evt, "zz", 2));
    vesk_event_destroy(&evt);
}

TEST_F(EventTest, InvalidEventIgnoresAdditions) {
    vesk_metadata_t invalid;
    vesk_metadata_init(&invalid);
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_event_init(&evt, &invalid, nullptr));
    size_t size_before = vesk_bson_buffer_size(&evt.buffer);
    EXPECT_EQ(0, vesk_event_add_info(&evt, "k", "v"));
    EXPECT_EQ(0, vesk_event_add_info_int64(&evt, "n", 1));
    EXPECT_EQ(0, vesk_event_add_edge(&evt, &md_));
    EXPECT_EQ(size_before, vesk_bson_buffer_size(&evt.buffer));
    vesk_event_destroy(&evt);
}

TEST(EventWithoutReporter, RawSendHasNoReporterCode) {
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "x", 1));
}

TEST(BsonWriter, NestedDocumentsAndArraysDecode) {
    vesk_bson_buffer b;
    ASSERT_NE(nullptr, vesk_bson_buffer_init(&b));
    vesk_bson_append_int(&b, "i", -7);
    vesk_bson_append_start_object(&b, "o");
    vesk_bson_append_string(&b, "s", "t");
    vesk_bson_append_start_array(&b, "a");
    vesk_bson_append_long(&b, "0", 1);
    vesk_bson_append_null(&b, "1");
    vesk_bson_append_finish_object(&b);
    // The inner length is patched now; the outer one waits for the finish.
    int32_t outer;
    memcpy(&outer, b.data, 4);
    EXPECT_EQ(0, outer);
    vesk_bson_append_finish_object(&b);
    EXPECT_EQ(nullptr, vesk_bson_append_finish_object(&b));  // nothing left open
    char *doc = vesk_bson_buffer_finish(&b);
    ASSERT_NE(nullptr, doc);
    EXPECT_EQ(doc, vesk_bson_buffer_finish(&b));
    EXPECT_EQ(nullptr, vesk_bson_append_int(&b, "late", 1));
    vesk_bson handle;
    vesk_bson_from_buffer(&handle, &b);
    std::string bytes(doc, static_cast<size_t>(vesk_bson_size(&handle)));
    auto docs = decode_bson(bytes);
    ASSERT_EQ(1u, docs.size());
    EXPECT_EQ(
        "[[\"i\", [\"int32\", -7]], [\"o\", [\"document\", [[\"s\", [\"string\", \"t\"]], "
        "[\"a\", [\"array\", [[\"int64\", 1], [\"null\", null]]]]]]]]",
        docs[0]);

    // An embedded finished document, copied whole.
    vesk_bson_buffer outer_b;
    vesk_bson_buffer_init(&outer_b);
    vesk_bson_append_bson(&outer_b, "inner", &handle);
    vesk_bson_buffer_finish(&outer_b);
    vesk_bson outer_handle;
    vesk_bson_from_buffer(&outer_handle, &outer_b);
    auto outer_docs = decode_bson(std::string(outer_b.data, static_cast<size_t>(vesk_bson_size(&outer_handle))));
    ASSERT_EQ(1u, outer_docs.size());
    EXPECT_EQ(0u, outer_docs[0].find("[[\"inner\", [\"document\", [[\"i\", [\"int32\", -7]], [\"o\""))
        << outer_docs[0];
    vesk_bson_buffer_destroy(&outer_b);
    vesk_bson_buffer_destroy(&b);
    EXPECT_EQ(0, vesk_bson_size(nullptr));
}

std::string g_last_bson_error;
void remember_error(const char *message) { g_last_bson_error = message; }

TEST(BsonWriter, AppendToDestroyedBufferGoesToTheHandler) {
    vesk_bson_err_handler old = vesk_set_bson_err_handler(remember_error);
    vesk_bson_buffer b;
    vesk_bson_buffer_init(&b);
    vesk_bson_buffer_destroy(&b);
    EXPECT_EQ(nullptr, vesk_bson_append_string(&b, "k", "v"));
    EXPECT_EQ("trying to append to finished buffer", g_last_bson_error);
    vesk_set_bson_err_handler(old);
}

}  // namespace
