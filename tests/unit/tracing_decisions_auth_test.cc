// Trigger-trace signatures at their edges (the integration tests have the
// plain cases), against HMAC-SHA1 values of the openssl command-line tool.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "corvidine/tracing_decisions.h"
#include "support/harness.h"

namespace {

const long kNow = 1700000000;
const char kKey[] = "k3Tq7XwPbnR2vLyd9HsA";

// Lower-case hex HMAC-SHA1 of `data` under `key` (alphanumeric), from `openssl dgst`.
std::string openssl_hmac(const std::string &key, const std::string &data) {
    char path[] = "/tmp/corvidine-hmac-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
    close(fd);
    std::string output;
    if (FILE *p = popen(("openssl dgst -sha1 -hmac " + key + " " + path + " 2>&1").c_str(), "r")) {
        char buf[256];
        while (fgets(buf, sizeof(buf), p)) output += buf;
        EXPECT_EQ(0, pclose(p)) << output;
    }
    unlink(path);
    size_t eq = output.rfind("= ");  // "HMAC-SHA1(<path>)= <40 hex digits>"
    EXPECT_NE(std::string::npos, eq) << output;
    return eq == std::string::npos ? "" : output.substr(eq + 2, 40);
}

class Signatures : public corvidine_test::SettingsFixture {
protected:
    // Fresh table; the default record has the given key.
    void reset(const char *key) {
        fresh_settings();
        const double caps[3] = {100, 100, 100}, rates[3] = {0, 0, 0};
        ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, 0x14, 100, 60, caps, rates, key[0] ? key : nullptr, 0));
    }
    int decide(const char *options, const std::string &signature, long ts, int request_type,
               vesk_tracing_decisions_out_t *out) {
        vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc", request_type);
        in.header_options = options;
        in.header_signature = signature.c_str();
        in.header_timestamp = ts;
        memset(out, 0, sizeof(*out));
        return vesk_tracing_decisions(&in, out);
    }
    corvidine_test::FixedClock clock{kNow};
};

TEST_F(Signatures, OutcomesOfTheCheck) {
    const std::string options = "trigger-trace;ts=1700000000;custom-key=value";
    const std::string good = openssl_hmac(kKey, options), wrong_key = openssl_hmac("wrongKey123", options);
    const char *o = options.c_str();
    struct Case {
        const char *name, *key, *options;
        std::string signature;
        long ts;
        int request_type, ret, auth, do_sample, decision_type;
    } cases[] = {
        {"good, now", kKey, o, good, kNow, 1, 0, 0, 1, 1},
        {"good, 300 s ahead", kKey, o, good, kNow + 300, 1, 0, 0, 1, 1},
        {"good, 300 s behind", kKey, o, good, kNow - 300, 1, 0, 0, 1, 1},
        {"good, 301 s ahead", kKey, o, good, kNow + 301, 1, -5, 3, 0, -1},
        {"good, 301 s behind", kKey, o, good, kNow - 301, 1, -5, 3, 0, -1},
        {"good, no timestamp", kKey, o, good, 0, 1, -5, 3, 0, -1},
        {"wrong key", kKey, o, wrong_key, kNow, 1, -5, 2, 0, -1},
        {"one digit short", kKey, o, good.substr(0, 39), kNow, 1, -5, 2, 0, -1},
        {"one digit more", kKey, o, good + "0", kNow, 1, -5, 2, 0, -1},
        {"no options text", kKey, nullptr, good, kNow, 1, -5, 2, 0, -1},
        {"empty options text", kKey, "", good, kNow, 1, -5, 2, 0, -1},
        {"record has no key", "", o, good, kNow, 1, -5, 1, 0, -1},
        {"good on an ordinary request", kKey, o, good, kNow, 0, 0, 0, 1, 0},
        {"bad on an ordinary request", kKey, o, wrong_key, kNow, 0, -5, 2, 0, -1},
        {"empty signature is none", kKey, o, "", kNow, 1, 0, -1, 1, 1},
    };
    const char *auth_text[] = {"ok", "no-signature-key", "bad-signature", "bad-timestamp"};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        reset(c.key);
        vesk_tracing_decisions_out_t out;
        int ret = decide(c.options, c.signature, c.ts, c.request_type, &out);
        EXPECT_EQ(c.ret, ret);
        EXPECT_EQ(c.auth, out.auth_status);
        EXPECT_STREQ(c.auth >= 0 ? auth_text[c.auth] : "", out.auth_message);
        EXPECT_EQ(c.do_sample, out.do_sample);
        EXPECT_EQ(c.decision_type, out.decision_type);
        if (ret == -5) EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->triggered_count);
    }
}

TEST_F(Signatures, KeyComesFromTheResolvedRecordAndMayBeLong) {
    std::string long_key;  // the longest a record keeps
    for (int i = 0; i < 255; ++i) long_key += "abcdefghijklmnopqrstuvwxyz0123456789"[i % 36];
    const std::string options = "trigger-trace;ts=1700000000;pd-keys=a:b";
    reset(kKey);
    const double caps[3] = {100, 100, 100}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("svc", 3, 1000000, 0x14, 100, 60, caps, rates, long_key.c_str(), 0));
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(options.c_str(), openssl_hmac(long_key, options), kNow, 1, &out));
    EXPECT_EQ(-5, decide(options.c_str(), openssl_hmac(kKey, options), kNow, 1, &out)) << "not the default's key";
}

}  // namespace
