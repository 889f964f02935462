/*
 * Regular expressions for transaction filtering (PCRE2 behind an opaque
 * handle). A compiled expression may be matched from any thread.
 */
#ifndef CORVIDINE_REGEX_H
#define CORVIDINE_REGEX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Compiles a pattern; null when it does not compile (the reason is logged). */
void *vesk_regex_new_expression(const char *pattern);
void vesk_regex_delete_expression(void *expression);
/* 1 when the whole string matches, 0 when not (also for null arguments). */
int vesk_regex_match(const char *string, void *expression);

#ifdef __cplusplus
}
#endif

#endif
