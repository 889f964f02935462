// The SQL sanitizer's state machine. Each step reads one character; a step
// that does not consume it leaves the read position where it is, so the next
// state sees the same character again. The write position never passes the
// read position, which is what makes the in-place rewrite safe.
#include "corvidine/sql_sanitizer.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

extern "C" const char *const SanitizeStdSql_StateNames[11] = {
    "copy",        "copy/escape", "string/start", "string/body", "string/escape", "string/end_start",
    "string/end_body", "number",  "ident/escape", "quoted-ident", "identifier",
};

namespace {

enum State : int {
    kCopy = 0,
    kCopyEscape = 1,
    kStringStart = 2,
    kStringBody = 3,
    kStringEscape = 4,
    kStringEndStart = 5,
    kStringEndBody = 6,
    kNumber = 7,
    kIdentEscape = 8,
    kQuotedIdent = 9,
    kIdentifier = 10,
};

// The locale's classes, looked up once per call rather than once per byte.
// glibc keeps them in a per-thread table; elsewhere the <ctype.h> calls do.
struct CharClasses {
#ifdef __GLIBC__
    const unsigned short *table = *__ctype_b_loc();
    bool alpha(unsigned char c) const { return table[c] & _ISalpha; }
    bool digit(unsigned char c) const { return table[c] & _ISdigit; }
    bool space_or_punct(unsigned char c) const { return table[c] & (_ISspace | _ISpunct); }
#else
    bool alpha(unsigned char c) const { return isalpha(c); }
    bool digit(unsigned char c) const { return isdigit(c); }
    bool space_or_punct(unsigned char c) const { return isspace(c) || ispunct(c); }
#endif
};

template <bool Trace>
int64_t sanitize(char *text, size_t length, uint32_t flags) {
    const CharClasses cls;
    const bool double_quoted_strings = flags & VESK_SQL_DOUBLE_QUOTED_STRINGS;
    State state = kCopy, printed = kCopy;
    char quote = '\'';
    size_t r = 0, w = 0;

    while (r < length) {
        const size_t at = r;
        const char c = text[r];
        const unsigned char u = static_cast<unsigned char>(c);
        switch (state) {
        case kCopy:
            r++;
            if (cls.alpha(u) || c == '_') {
                text[w++] = c;
                state = kIdentifier;
            } else if (cls.digit(u)) {
                text[w++] = '0';
                state = kNumber;
            } else if (c == '\'' || (c == '"' && double_quoted_strings)) {
                text[w++] = c;
                quote = c;
                state = kStringStart;
            } else if (c == '"' || c == '`') {
                text[w++] = c;
                quote = c;
                state = kQuotedIdent;
            } else if (c == '\\') {
                text[w++] = c;
                state = kCopyEscape;
            } else {
                text[w++] = c;
            }
            break;
        case kCopyEscape:
            text[w++] = c;
            r++;
            state = kCopy;
            break;
        case kStringStart:
        case kStringBody:
            r++;
            if (c == quote) {
                if (r == length) {  // a string closing the text keeps its quote
                    text[w++] = c;
                    goto done;
                }
                state = state == kStringStart ? kStringEndStart : kStringEndBody;
            } else {
                if (state == kStringStart) text[w++] = '?';
                state = c == '\\' ? kStringEscape : kStringBody;
            }
            break;
        case kStringEscape:
            r++;
            state = kStringBody;
            break;
        case kStringEndStart:
        case kStringEndBody:
            if (c == quote) {  // a doubled quote stays inside the literal
                if (state == kStringEndStart) text[w++] = '?';
                r++;
                state = kStringBody;
            } else {
                text[w++] = quote;
                state = kCopy;
            }
            break;
        case kNumber:
            r++;
            if (!cls.digit(u)) {
                text[w++] = c;
                state = kCopy;
            }
            break;
        case kIdentEscape:
            text[w++] = c;
            r++;
            state = kQuotedIdent;
            break;
        case kQuotedIdent:
            text[w++] = c;
            r++;
            if (c == '\\')
                state = kIdentEscape;
            else if (c == quote)
                state = kCopy;
            break;
        case kIdentifier:
            if (c == '\'' || (c == '"' && double_quoted_strings)) {
                text[w++] = c;
                r++;
                quote = c;
                state = kStringStart;
            } else if (cls.space_or_punct(u)) {
                state = kCopy;
            } else {
                text[w++] = c;
                r++;
            }
            break;
        }
        if (Trace && state != printed) {
            printf("vesk_sanitize_sql: New state=%s(%d) on char@%ld='%c'\n", SanitizeStdSql_StateNames[state],
                   static_cast<int>(state), static_cast<long>(at), c);
            printed = state;
        }
    }
done:
    text[w] = '\0';
    return static_cast<int64_t>(w);
}

}  // namespace

extern "C" {

int vesk_sql_sanitize_enabled(int64_t enable_sanitize_sql) {
    return static_cast<uint8_t>(enable_sanitize_sql) != 0;
}

uint32_t vesk_sql_sanitizer_flags(int64_t enable_sanitize_sql, const char *database) {
    const uint8_t mode = static_cast<uint8_t>(enable_sanitize_sql);
    if (mode & VESK_SQL_MODE_DOUBLE_QUOTE_STRING) return VESK_SQL_DOUBLE_QUOTED_STRINGS;
    if (mode & VESK_SQL_MODE_DOUBLE_QUOTE_IDENT) return 0;
    if (database == nullptr) return VESK_SQL_DOUBLE_QUOTED_STRINGS;
    // PostgreSQL and Oracle quote identifiers with '"'; MySQL and SQLite take it as a string.
    if (strcmp(database, "pgsql") == 0 || strcmp(database, "oci") == 0) return 0;
    return VESK_SQL_DOUBLE_QUOTED_STRINGS;
}

int64_t vesk_sanitize_sql(char *text, size_t length, uint32_t flags) {
    return flags & VESK_SQL_STATE_TRACE ? sanitize<true>(text, length, flags) : sanitize<false>(text, length, flags);
}

}  // extern "C"
