// SQL sanitizer: tricky statements, the choice of flags, random statements against a token-level reading of the rules.
#include <gtest/gtest.h>

#include <string.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "corvidine/sql_sanitizer.h"

namespace {

constexpr uint32_t DQ = VESK_SQL_DOUBLE_QUOTED_STRINGS;

// Sanitizes a copy in a buffer of exactly length + 1 bytes (ASan sees any write past it); checks length and terminator.
std::string sanitize(const std::string &in, uint32_t flags) {
    std::unique_ptr<char[]> buf(new char[in.size() + 1]);
    memcpy(buf.get(), in.data(), in.size());
    buf[in.size()] = 'X';
    int64_t n = vesk_sanitize_sql(buf.get(), in.size(), flags);
    EXPECT_GE(n, 0);
    EXPECT_LE(n, static_cast<int64_t>(in.size())) << in;
    if (n < 0 || n > static_cast<int64_t>(in.size())) return {};
    EXPECT_EQ('\0', buf[n]);
    return std::string(buf.get(), n);
}

using namespace std::string_literals;

struct Case {
    std::string in;
    uint32_t flags;
    std::string out;
};

const Case kCases[] = {
    {"", DQ, ""},
    {"SELECT * FROM t WHERE a = 'x''y' AND b = 12.5", DQ, "SELECT * FROM t WHERE a = '?' AND b = 0.0"},
    {"a = 'it\\'s'", DQ, "a = '?'"},
    {"a = \"b\"", DQ, "a = \"?\""},
    {"a = \"b 12\" AND c = 3", 0, "a = \"b 12\" AND c = 0"},
    {"SELECT `col 1`, `it's` FROM `t2`", DQ, "SELECT `col 1`, `it's` FROM `t2`"},
    {"SELECT `a\\`1` FROM t", 0, "SELECT `a\\`1` FROM t"},
    {"x = ''", DQ, "x = ''"},
    {"x = '' AND y = ''''", DQ, "x = '' AND y = '?'"},
    {"x = 'abc", DQ, "x = '?"},
    {"x = '", DQ, "x = '"},
    {"x = 'a\\", DQ, "x = '?"},
    {"x = \\'abc", DQ, "x = \\'abc"},
    {"x = 'a\\\\' OR y = 1", DQ, "x = '?' OR y = 0"},
    {"x = 'a\\\"b' AND z = \"c\\\"d\"", DQ, "x = '?' AND z = \"?\""},
    {"x = 'a''b''c', y = '''q'", DQ, "x = '?', y = '?'"},
    {"SELECT col1, t2.c3_4, a_1 FROM t9", DQ, "SELECT col1, t2.c3_4, a_1 FROM t9"},
    {"WHERE id IN (1, 22, 333,4444) AND s IN ('a','bb', '')", DQ,
     "WHERE id IN (0, 0, 0,0) AND s IN ('?','?', '')"},
    {"v = 1.5e-10 OR w = 2E+3 OR u = .75 OR t = -42", DQ, "v = 0.0e-0 OR w = 0E+0 OR u = .0 OR t = -0"},
    {"h = 0x1F OR g = 0xff OR f = x'AB12' OR e = X'00'", DQ, "h = 0x0F OR g = 0xff OR f = x'?' OR e = X'?'"},
    {"a = 1'x'", DQ, "a = 0'x'"},
    {"n = N'abc' OR m = _utf8'd'", DQ, "n = N'?' OR m = _utf8'?'"},
    {"-- user's note\nSELECT 1", DQ, "-- user'?"},
    {"SELECT 1 /* id 7 */ FROM t # 8", DQ, "SELECT 0 /* id 0 */ FROM t # 0"},
    {"name = 'Zoë 日本語' AND café1 = 5", DQ, "name = '?' AND café1 = 0"},
    {"UPDATE t SET s = '\xF0\x9F\x98\x80', n = 3", DQ, "UPDATE t SET s = '?', n = 0"},
    {"a = \"x\" || 'y'", 0, "a = \"x\" || '?'"},
    {"a = 'x\"y' AND b = \"p'q\"", 0, "a = '?' AND b = \"p'q\""},
    {"tbl\"1\"", DQ, "tbl\"?\""},
    {"tbl\"1\"", 0, "tbl\"1\""},
    {"LIMIT 10 OFFSET 20;", DQ, "LIMIT 0 OFFSET 0;"},
    {"a=1\0b='c'"s, DQ, "a=0\0b='?'"s},
};

TEST(SqlSanitizer, TableOfStatements) {
    for (const Case &c : kCases) EXPECT_EQ(c.out, sanitize(c.in, c.flags)) << "input: " << c.in << " flags " << c.flags;
}

TEST(SqlSanitizer, FlagsFollowModeThenDatabase) {
    struct { int64_t mode; const char *db; uint32_t flags; } rows[] = {
        {1, "mysql", DQ},   {1, "sqlite", DQ}, {1, "pgsql", 0},   {1, "oci", 0},      {1, "oci8", DQ},
        {1, "pgsql2", DQ},  {1, nullptr, DQ},  {2, "pgsql", DQ},  {6, "oci", DQ},     {4, "mysql", 0},
        {4, nullptr, 0},    {0x104, "mysql", 0}, {0x202, "pgsql", DQ}, {8, "oci", 0},
    };
    for (const auto &r : rows)
        EXPECT_EQ(r.flags, vesk_sql_sanitizer_flags(r.mode, r.db)) << r.mode << " " << (r.db ? r.db : "null");
    for (int64_t mode : {0, 256}) EXPECT_FALSE(vesk_sql_sanitize_enabled(mode)) << mode;
    for (int64_t mode : {1, -1}) EXPECT_TRUE(vesk_sql_sanitize_enabled(mode)) << mode;
}

TEST(SqlSanitizer, StateTracePrintsEachChange) {
    testing::internal::CaptureStdout();
    EXPECT_EQ("a='?'", sanitize("a='b'", DQ | VESK_SQL_STATE_TRACE));
    EXPECT_EQ(
        "vesk_sanitize_sql: New state=identifier(10) on char@0='a'\n"
        "vesk_sanitize_sql: New state=copy(0) on char@1='='\n"
        "vesk_sanitize_sql: New state=string/start(2) on char@2='''\n"
        "vesk_sanitize_sql: New state=string/body(3) on char@3='b'\n",
        testing::internal::GetCapturedStdout());
}

// Random statements of blank-separated tokens, each with the text the rules make of it (so the statement's result
// is the tokens' results joined); string contents carry a marker that must never come through.
class Statements {
  public:
    explicit Statements(uint32_t seed) : rng_(seed) {}

    void token(bool dq, std::string &in, std::string &out) {
        static const char *const kWords[] = {"SELECT", "FROM", "WHERE", "IN", "AND", "t1", "col_2", "café9", "x"};
        static const char *const kOps[] = {"=", "<>", "(", ")", ",", "*", ";", "||", "/* note */"};
        switch (pick(8)) {
        case 0: in = out = kWords[pick(9)]; break;
        case 1: in = out = kOps[pick(9)]; break;
        case 2: in = out = "`" + body('`', false) + "`"; break;
        case 3: number(in, out); break;
        case 4: literal('\'', in, out); break;
        case 5:
            if (dq) literal('"', in, out);
            else in = out = "\"" + body('"', false) + "\"";
            break;
        case 6:  // a prefix word right before a string: N'…'
            literal('\'', in, out);
            in = "N" + in, out = "N" + out;
            break;
        default: in = out = std::string("\\") + "'\"`\\;,("[pick(7)]; break;
        }
    }

    std::string separator() { return std::string(1, " \n\t"[pick(3)]); }
    size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

  private:
    // Text of a quoted name or literal: plain, multi-byte, escaped, doubled quotes.
    std::string body(char quote, bool literal) {
        std::string s;
        for (size_t i = pick(6); i > 0; --i) {
            switch (pick(6)) {
            case 0: s += literal ? "SECRET" : "name"; break;
            case 1: s += "d\xC3\xA9j\xC3\xA0 \xE6\x97\xA5"; break;
            case 2: s += std::string(1, '\\') + "'\"`\\0n"[pick(6)]; break;
            case 3: s += std::string(2, quote); break;
            case 4: s += std::to_string(rng_()); break;
            default: s += " ;-*/#"[pick(6)]; break;
            }
        }
        // In a quoted name, only a backslash escapes the quote, and a doubled one closes it.
        if (quote == '`' || quote == '"') {
            std::string t;
            for (size_t i = 0; i < s.size(); ++i) {
                if (s[i] == '\\') { t += s.substr(i, 2); ++i; }
                else if (s[i] != quote) t += s[i];
            }
            s = t;
        }
        return s;
    }

    void literal(char quote, std::string &in, std::string &out) {
        std::string b = body(quote, true);
        in = quote + b + quote;
        out = b.empty() ? std::string(2, quote) : std::string{quote, '?', quote};
    }

    void number(std::string &in, std::string &out) {
        static const char *const kShapes[][2] = {{"7", "0"},           {"123456", "0"},   {"-12", "-0"},
                                                {"3.25", "0.0"},      {".5", ".0"},      {"6.02e23", "0.0e0"},
                                                {"1E-9", "0E-0"},     {"42.", "0."},     {"9e+10", "0e+0"}};
        const auto &s = kShapes[pick(9)];
        in = s[0], out = s[1];
    }

    std::mt19937 rng_;
};

TEST(SqlSanitizer, RandomStatementsLoseEveryLiteral) {
    const int64_t modes[] = {1, 2, 4};
    const char *dbs[] = {"mysql", "pgsql", nullptr};
    Statements gen(20261123);
    for (int round = 0; round < 20000; ++round) {
        uint32_t flags = vesk_sql_sanitizer_flags(modes[gen.pick(3)], dbs[gen.pick(3)]);
        std::string in, want, tin, tout;
        for (size_t n = 1 + gen.pick(30); n > 0; --n) {
            gen.token(flags & DQ, tin, tout);
            std::string sep = n > 1 ? gen.separator() : "";
            in += tin + sep;
            want += tout + sep;
        }
        std::string got = sanitize(in, flags);
        ASSERT_EQ(want, got) << "input: " << in << " flags " << flags;
        ASSERT_EQ(std::string::npos, got.find("SECRET")) << in;
    }
}

// Any bytes at all: no crash, no write outside the buffer, never longer.
TEST(SqlSanitizer, RandomBytesStayInBounds) {
    std::mt19937 rng(7);
    const char alphabet[] = "'\"`\\0123456789aZ_ .e-\n\x80\xC3\xA9\xFF";
    for (int round = 0; round < 50000; ++round) {
        std::string in(rng() % 64, '\0');
        for (char &c : in) c = rng() % 4 ? alphabet[rng() % (sizeof(alphabet) - 1)] : static_cast<char>(rng());
        sanitize(in, rng() % 2);
    }
}

}  // namespace
