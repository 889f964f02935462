/* The trace id appended to log lines, so that a log line leads to its trace. */
#include "php_corvidine.h"

#include "corvidine/context.h"
#include "corvidine/metadata.h"

#include "src/config/ini.h"
#include "src/request/request_trace.h"

void php_vesk_get_log_trace_id(char *buffer, size_t size) {
    if (buffer == NULL || size == 0) {
        return;
    }
    buffer[0] = '\0';

    char text[VESK_MAX_METADATA_STRING_LEN];
    const vesk_metadata_t *context = vesk_context_get();
    if (vesk_metadata_tostr(context, text, sizeof(text)) != 0) {
        return;
    }
    /* Behind the two version digits: the task id, then the op id. */
    size_t task_digits = 2 * context->task_len;
    if (task_digits + 1 > size) {
        return;
    }
    memcpy(buffer, text + 2, task_digits);
    size_t n = task_digits;
    if (n + 2 <= size) {
        buffer[n++] = '-';
        if (n + 2 <= size) {
            buffer[n++] = VESK_G(tracing) ? '1' : '0';
        }
    }
    buffer[n] = '\0';
}

char *php_vesk_log_append_trace_id(const char *message) {
    if (message == NULL) {
        return NULL;
    }
    const char *setting = VESK_INI_STR("corvidine.log_trace_id");
    if (strcmp(setting, "enabled") != 0 && !(strcmp(setting, "sampled_only") == 0 && VESK_G(tracing))) {
        return NULL;
    }
    char id[PHP_VESK_LOG_TRACE_ID_SIZE];
    php_vesk_get_log_trace_id(id, sizeof(id));
    char *result;
    spprintf(&result, 0, "%s [%s=%s]", message, "zq.traceId", id);
    return result;
}
