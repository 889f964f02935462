/*
 * SQL sanitizer: strips literal values from a query before it goes into an
 * event, so that no application data leaves the host. Not a parser: one pass
 * of a small character state machine over a private copy of the query,
 * rewritten in place. String literals become '?' (or "?"), each run of digits
 * outside a word becomes 0, everything else is copied.
 *
 * Threads: pure functions of their arguments; any thread. Character classes
 * follow the calling thread's C locale (isalpha, isdigit, isspace, ispunct).
 */
#ifndef CORVIDINE_SQL_SANITIZER_H
#define CORVIDINE_SQL_SANITIZER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sanitizer flags. */
#define VESK_SQL_DOUBLE_QUOTED_STRINGS 0x1 /* '"' opens a string; clear: a quoted identifier */
#define VESK_SQL_STATE_TRACE 0x400         /* print each state change to stdout (debugging only) */

/* Bits of the corvidine.enable_sanitize_sql value (its low 8 bits count). */
#define VESK_SQL_MODE_DOUBLE_QUOTE_STRING 0x2 /* '"' always opens a string */
#define VESK_SQL_MODE_DOUBLE_QUOTE_IDENT 0x4  /* '"' always quotes an identifier (unless 0x2) */

/* Names of the machine's states, by number (0 copy … 10 identifier). */
extern const char *const SanitizeStdSql_StateNames[11];

/* Whether queries are sanitized under this corvidine.enable_sanitize_sql
 * value: 1 unless its low 8 bits are all 0 (then callers report bound values
 * instead). */
int vesk_sql_sanitize_enabled(int64_t enable_sanitize_sql);

/* Flags for a database, by its driver name ("mysql", "pgsql", "sqlite",
 * "oci", …; null when unknown), under an enable_sanitize_sql value.
 * In order: mode bit 0x2 gives VESK_SQL_DOUBLE_QUOTED_STRINGS; bit 0x4 gives
 * 0; otherwise "pgsql" and "oci" (the whole name) give 0 and every other
 * name, or none, gives VESK_SQL_DOUBLE_QUOTED_STRINGS. */
uint32_t vesk_sql_sanitizer_flags(int64_t enable_sanitize_sql, const char *database);

/* Rewrites text[0..length) in place and returns the new length, never more
 * than length. Writes a NUL behind the result, so text needs length + 1
 * bytes. Any bytes are accepted (malformed SQL, NULs, other encodings); an
 * unterminated string ends as '? . */
int64_t vesk_sanitize_sql(char *text, size_t length, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif
