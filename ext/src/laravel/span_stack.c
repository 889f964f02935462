/* Laravel spans of the request (see span_stack.h). */
#include "php_corvidine.h"

#include "src/laravel/span_stack.h"

static int vesk_laravel_flags(int backtrace) {
    return backtrace ? PHP_VESK_EVENT_BACKTRACE : 0;
}

static void vesk_laravel_push(const char *span) {
    vesk_laravel_span *element = malloc(sizeof(*element));
    char *name = strdup(span);
    if (element == NULL || name == NULL) {
        free(element);
        free(name);
        return;
    }
    element->name = name;
    element->next = VESK_G(laravel_spans);
    VESK_G(laravel_spans) = element;
}

/* The newest span's name, taken off the stack (free it), or null. */
static char *vesk_laravel_pop(void) {
    vesk_laravel_span *top = VESK_G(laravel_spans);
    if (top == NULL) {
        return NULL;
    }
    VESK_G(laravel_spans) = top->next;
    char *name = top->name;
    free(top);
    return name;
}

void vesk_laravel_trace_event(const char *span, const char *label, const php_vesk_kv *records, int backtrace) {
    if (span == NULL || label == NULL) {
        return;
    }
    if (strcmp(label, "entry") == 0) {
        php_vesk_trace_event(span, "entry", records, vesk_laravel_flags(backtrace));
        vesk_laravel_push(span);
        return;
    }
    if (strcmp(label, "exit") != 0) {
        php_vesk_trace_event(span, label, records, vesk_laravel_flags(backtrace));
        return;
    }
    char *popped;
    while ((popped = vesk_laravel_pop()) != NULL) {
        if (strcmp(popped, span) == 0) {
            php_vesk_trace_event(span, "exit", records, vesk_laravel_flags(backtrace));
            free(popped);
            return;
        }
        php_vesk_trace_event(popped, "exit", NULL, 0);
        free(popped);
    }
}

void vesk_laravel_close_all_spans(int report) {
    char *popped;
    while ((popped = vesk_laravel_pop()) != NULL) {
        if (report) {
            char message[320];
            snprintf(message, sizeof(message), "Unclosed span '%s'", popped);
            php_vesk_kv records[] = {
                {PHP_VESK_KV_STRING, "ErrorClass", "ZqDebugLaravel", 0},
                {PHP_VESK_KV_STRING, "ErrorMsg", message, 0},
                {PHP_VESK_KV_END, NULL, NULL, 0},
            };
            vesk_laravel_trace_event("laravel", "error", records, 0);
        }
        php_vesk_trace_event(popped, "exit", NULL, 0);
        free(popped);
    }
}

void vesk_laravel_spans_clear(void) {
    char *popped;
    while ((popped = vesk_laravel_pop()) != NULL) {
        free(popped);
    }
}
