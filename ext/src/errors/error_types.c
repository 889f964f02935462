/* The PHP error types as events name them. */
#include "php_corvidine.h"

#include "src/errors/errors.h"

typedef struct {
    int type;
    const char *label;       /* as PHP prints it */
    const char *error_class; /* "ErrorClass" */
    const char *code;        /* "PHPErrorCode" */
    int severity;            /* "ErrorLevel" */
} php_vesk_error_type;

static const php_vesk_error_type php_vesk_error_types[] = {
    {E_ERROR, "Fatal error", "ERROR", "E_ERROR", 3},
    {E_WARNING, "Warning", "WARNING", "E_WARNING", 4},
    {E_PARSE, "Parse error", "PARSE", "E_PARSE", 2},
    {E_NOTICE, "Notice", "NOTICE", "E_NOTICE", 5},
    {E_CORE_ERROR, "Fatal error", "ERROR", "E_CORE_ERROR", 3},
    {E_CORE_WARNING, "Warning", "WARNING", "E_CORE_WARNING", 4},
    {E_COMPILE_ERROR, "Fatal error", "ERROR", "E_COMPILE_ERROR", 3},
    {E_COMPILE_WARNING, "Warning", "WARNING", "E_COMPILE_WARNING", 4},
    {E_USER_ERROR, "Fatal error", "ERROR", "E_USER_ERROR", 3},
    {E_USER_WARNING, "Warning", "WARNING", "E_USER_WARNING", 4},
    {E_USER_NOTICE, "Notice", "NOTICE", "E_USER_NOTICE", 5},
    {E_STRICT, "Strict Standards", "STRICT", "E_STRICT", 6},
    {E_RECOVERABLE_ERROR, "Catchable fatal error", "RECOVERABLE_ERROR", "E_RECOVERABLE_ERROR", 3},
    {E_DEPRECATED, "Deprecated", "DEPRECATED", "E_DEPRECATED", 6},
    {E_USER_DEPRECATED, "Deprecated", "DEPRECATED", "E_USER_DEPRECATED", 6},
};
static const php_vesk_error_type php_vesk_unknown_error = {0, "Unknown error", "UNKNOWN", "UNKNOWN", 0};

static const php_vesk_error_type *php_vesk_error_type_of(int type) {
    type &= ~E_DONT_BAIL;
    for (size_t i = 0; i < sizeof(php_vesk_error_types) / sizeof(php_vesk_error_types[0]); i++) {
        if (php_vesk_error_types[i].type == type) {
            return &php_vesk_error_types[i];
        }
    }
    return &php_vesk_unknown_error;
}

void php_vesk_get_errorclass(int type, char *buffer, size_t size) {
    snprintf(buffer, size, "%s", php_vesk_error_type_of(type)->error_class);
}

void php_vesk_get_errorstr(int type, char *buffer, size_t size) {
    snprintf(buffer, size, "%s", php_vesk_error_type_of(type)->code);
}

int php_vesk_get_severity(int type) {
    return php_vesk_error_type_of(type)->severity;
}

const char *php_vesk_get_errorlabel(int type) {
    return php_vesk_error_type_of(type)->label;
}
