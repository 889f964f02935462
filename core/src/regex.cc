// Whole-string regular-expression matching on PCRE2.
#define PCRE2_CODE_UNIT_WIDTH 8
#include "corvidine/regex.h"

#include <pcre2.h>
#include <string.h>

#include "corvidine/debug_log.h"

extern "C" {

void *vesk_regex_new_expression(const char *pattern) {
    if (pattern == nullptr) return nullptr;
    int error = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code *code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, 0, &error,
                                     &offset, nullptr);
    if (code == nullptr) {
        PCRE2_UCHAR text[256];
        pcre2_get_error_message(error, text, sizeof(text));
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING, "Invalid regular expression '%s' at %lu: %s",
                       pattern, (unsigned long)offset, reinterpret_cast<const char *>(text));
    }
    return code;
}

void vesk_regex_delete_expression(void *expression) { pcre2_code_free(static_cast<pcre2_code *>(expression)); }

int vesk_regex_match(const char *string, void *expression) {
    if (string == nullptr || expression == nullptr) return 0;
    pcre2_code *code = static_cast<pcre2_code *>(expression);
    pcre2_match_data *data = pcre2_match_data_create_from_pattern(code, nullptr);
    if (data == nullptr) return 0;
    int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(string), strlen(string), 0,
                         PCRE2_ANCHORED | PCRE2_ENDANCHORED, data, nullptr);
    pcre2_match_data_free(data);
    return rc >= 0 ? 1 : 0;
}

}  // extern "C"
