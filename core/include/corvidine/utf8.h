/*
 * UTF-8 checks for text that reaches event documents from outside (request
 * headers, URLs): BSON strings must be UTF-8, or strict readers refuse the
 * whole document. Pure functions; any thread.
 */
#ifndef CORVIDINE_UTF8_H
#define CORVIDINE_UTF8_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Length of the valid UTF-8 prefix of text[0..len). Equal to len when all of
 * it is valid (overlong forms, surrogates and values above U+10FFFF are not). */
size_t vesk_utf8_valid_prefix(const char *text, size_t len);

/* Copies text into out (room for len + 1 bytes) with every byte that is not
 * part of a valid sequence replaced by '?'; returns the length written. out
 * may be text itself: the repair is then done in place. */
size_t vesk_utf8_sanitize(const char *text, size_t len, char *out);

/* The length to keep of text[0..len) when at most limit bytes may be kept:
 * len when it fits, else limit or less, so that no character is split. */
size_t vesk_utf8_cut(const char *text, size_t len, size_t limit);

#ifdef __cplusplus
}
#endif

#endif
