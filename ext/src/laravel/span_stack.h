/*
 * Laravel spans of the request: the one way the Laravel actions send
 * events, and the stack of spans they opened, newest on top.
 *
 * The stack lives on the process heap in the thread's globals; it is kept
 * whether or not the request is sampled (only the events depend on that).
 */
#ifndef PHP_VESK_LARAVEL_SPAN_STACK_H
#define PHP_VESK_LARAVEL_SPAN_STACK_H

#include "src/events/trace_event.h"

typedef struct vesk_laravel_span {
    char *name;
    struct vesk_laravel_span *next;
} vesk_laravel_span;

/*
 * span is also the event's layer.
 * "entry": sends the entry event (text backtrace when backtrace is not 0)
 *   and opens span.
 * "exit": closes span: spans opened after it are closed first, each with a
 *   bare exit event, so entries and exits stay nested; the exit of span
 *   carries records. With no span open, or span not open, nothing more.
 * Any other label: one event; the stack is left alone.
 */
void vesk_laravel_trace_event(const char *span, const char *label, const php_vesk_kv *records, int backtrace);

/* Closes every open span, newest first: an exit event each, preceded, when
 * report is not 0, by a "laravel" error event "Unclosed span '<name>'". */
void vesk_laravel_close_all_spans(int report);

/* Forgets the open spans without sending anything. */
void vesk_laravel_spans_clear(void);

#endif
