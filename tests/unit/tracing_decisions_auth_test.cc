// Trigger-trace signatures, checked against HMAC-SHA1 values computed by the
// openssl command-line tool rather than by our own code.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <string>

#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "corvidine/tracing_decisions.h"
#include "support/settings_fixture.h"

namespace {

const long kNow = 1700000000;
void fixed_clock(struct timeval *tv) {
    tv->tv_sec = kNow;
    tv->tv_usec = 0;
}

const char kKey[] = "k3Tq7XwPbnR2vLyd9HsA";
const char kOtherKey[] = "wrongKey123";

// Lower-case hex HMAC-SHA1 of `data` under `key`, from `openssl dgst`.
std::string openssl_hmac(const std::string &key, const std::string &data) {
    static std::map<std::pair<std::string, std::string>, std::string> cache;
    auto found = cache.find({key, data});
    if (found != cache.end()) return found->second;
    for (char c : key) EXPECT_TRUE(isalnum(static_cast<unsigned char>(c))) << "key must pass the shell as is";
    char path[] = "/tmp/corvidine-hmac-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
    close(fd);
    std::string cmd = "openssl dgst -sha1 -hmac " + key + " " + path + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    EXPECT_NE(nullptr, p);
    std::string output;
    char buf[256];
    while (p && fgets(buf, sizeof(buf), p)) output += buf;
    int status = p ? pclose(p) : -1;
    unlink(path);
    EXPECT_EQ(0, status) << output;
    // "HMAC-SHA1(<path>)= <40 hex digits>"
    size_t eq = output.rfind("= ");
    EXPECT_NE(std::string::npos, eq) << output;
    std::string hex = eq == std::string::npos ? "" : output.substr(eq + 2, 40);
    EXPECT_EQ(40u, hex.size()) << output;
    cache[{key, data}] = hex;
    return hex;
}

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return s;
}

class Signatures : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override {
        _vesk_clock_set(fixed_clock);
        reset("");
    }
    void TearDown() override { _vesk_clock_set(nullptr); }

    // Fresh table and configuration; the default record has the given key
    // and roomy buckets unless told otherwise.
    void reset(const char *key, double relaxed = 100, double strict = 100) {
        fresh_settings();
        const double caps[3] = {100, relaxed, strict}, rates[3] = {0, 0, 0};
        ASSERT_EQ(0,
                  vesk_settings_add("", 2, 1000000, 0x14, 100, 60, caps, rates, key[0] ? key : nullptr, 0));
    }

    int decide(const char *options, const char *signature, long timestamp, int request_type,
               vesk_tracing_decisions_out_t *out) {
        vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc", request_type);
        in.header_options = options;
        in.header_signature = signature;
        in.header_timestamp = timestamp;
        memset(out, 0, sizeof(*out));
        return vesk_tracing_decisions(&in, out);
    }
};

TEST_F(Signatures, OutcomesOfTheCheck) {
    const std::string options = "trigger-trace;ts=1700000000;custom-key=value";
    const std::string good = openssl_hmac(kKey, options);
    const std::string wrong_key = openssl_hmac(kOtherKey, options);
    const std::string other_text = openssl_hmac(kKey, options + ";x=1");
    ASSERT_NE(good, upper(good)) << "the digest should hold letters for the case test to mean anything";

    struct Case {
        const char *name;
        const char *key;  // of the settings record
        const char *options;
        std::string signature;
        long timestamp;
        int request_type;
        int ret, auth, do_sample, decision_type;
    } cases[] = {
        {"good, now", kKey, options.c_str(), good, kNow, 1, 0, 0, 1, 1},
        {"good, 300 s ahead", kKey, options.c_str(), good, kNow + 300, 1, 0, 0, 1, 1},
        {"good, 300 s behind", kKey, options.c_str(), good, kNow - 300, 1, 0, 0, 1, 1},
        {"good, 301 s ahead", kKey, options.c_str(), good, kNow + 301, 1, -5, 3, 0, -1},
        {"good, 301 s behind", kKey, options.c_str(), good, kNow - 301, 1, -5, 3, 0, -1},
        {"good, no timestamp", kKey, options.c_str(), good, 0, 1, -5, 3, 0, -1},
        {"upper-case hex", kKey, options.c_str(), upper(good), kNow, 1, -5, 2, 0, -1},
        {"wrong key", kKey, options.c_str(), wrong_key, kNow, 1, -5, 2, 0, -1},
        {"signs other text", kKey, options.c_str(), other_text, kNow, 1, -5, 2, 0, -1},
        {"one digit short", kKey, options.c_str(), good.substr(0, 39), kNow, 1, -5, 2, 0, -1},
        {"one digit more", kKey, options.c_str(), good + "0", kNow, 1, -5, 2, 0, -1},
        {"no options text", kKey, nullptr, good, kNow, 1, -5, 2, 0, -1},
        {"empty options text", kKey, "", good, kNow, 1, -5, 2, 0, -1},
        {"record has no key", "", options.c_str(), good, kNow, 1, -5, 1, 0, -1},
        {"good on an ordinary request", kKey, options.c_str(), good, kNow, 0, 0, 0, 1, 0},
        {"bad on an ordinary request", kKey, options.c_str(), wrong_key, kNow, 0, -5, 2, 0, -1},
        {"empty signature is none", kKey, options.c_str(), "", kNow, 1, 0, -1, 1, 1},
    };
    const char *auth_text[] = {"ok", "no-signature-key", "bad-signature", "bad-timestamp"};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        reset(c.key);
        vesk_tracing_decisions_out_t out;
        int ret = decide(c.options, c.signature.c_str(), c.timestamp, c.request_type, &out);
        EXPECT_EQ(c.ret, ret);
        EXPECT_EQ(c.auth, out.auth_status);
        EXPECT_STREQ(c.auth >= 0 ? auth_text[c.auth] : "", out.auth_message);
        EXPECT_EQ(c.do_sample, out.do_sample);
        EXPECT_EQ(c.decision_type, out.decision_type);
        EXPECT_STREQ(vesk_get_tracing_decisions_message(ret), out.status_message);
        if (ret == -5) {
            EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->triggered_count);
        }
    }
}

TEST_F(Signatures, GoodSignatureDrawsOnTheRelaxedBucketOthersOnTheStrict) {
    const std::string options = "trigger-trace;ts=1700000000";
    const std::string good = openssl_hmac(kKey, options);
    reset(kKey, /*relaxed=*/1, /*strict=*/0);
    vesk_tracing_decisions_out_t out;

    EXPECT_EQ(-4, decide(options.c_str(), nullptr, kNow, 1, &out)) << "strict bucket is empty";
    EXPECT_EQ(0, out.sample_rate);
    EXPECT_EQ(0, out.sample_source);
    EXPECT_EQ(0, decide(options.c_str(), good.c_str(), kNow, 1, &out));
    EXPECT_EQ(1, out.do_sample);
    EXPECT_EQ(-4, decide(options.c_str(), good.c_str(), kNow, 1, &out)) << "relaxed bucket spent";
    EXPECT_EQ(0, out.auth_status) << "the signature was still good";

    // A refused timestamp takes no token.
    reset(kKey, 1, 0);
    EXPECT_EQ(-5, decide(options.c_str(), good.c_str(), kNow + 1000, 1, &out));
    EXPECT_EQ(1.0f, vesk_settings_cfg_get()->bucket[VESK_BUCKET_RELAXED].available);
    EXPECT_EQ(0, decide(options.c_str(), good.c_str(), kNow, 1, &out));

    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(1u, e->triggered_count);
    EXPECT_EQ(1u, e->trace_count);
    EXPECT_EQ(0u, e->sample_count) << "no dice on the trigger path";
}

TEST_F(Signatures, KeyComesFromTheResolvedRecordAndMayBeLong) {
    // A 255-character key (the longest a record keeps) on the service's own record.
    std::string long_key;
    for (int i = 0; i < 255; ++i) long_key += "abcdefghijklmnopqrstuvwxyz0123456789"[i % 36];
    const std::string options = "trigger-trace;ts=1700000000;pd-keys=a:b";
    const std::string good = openssl_hmac(long_key, options);
    const std::string default_signed = openssl_hmac(kKey, options);
    reset(kKey);
    const double caps[3] = {100, 100, 100}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("svc", 3, 1000000, 0x14, 100, 60, caps, rates, long_key.c_str(), 0));

    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(options.c_str(), good.c_str(), kNow, 1, &out));
    EXPECT_EQ(0, out.auth_status);
    EXPECT_EQ(-5, decide(options.c_str(), default_signed.c_str(), kNow, 1, &out))
        << "the default's key is not used";
    EXPECT_EQ(2, out.auth_status);
}

}  // namespace
