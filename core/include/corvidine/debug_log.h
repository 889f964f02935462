/*
 * Debug log: the one sink for every diagnostic of the core, the settings and
 * the reporters.
 *
 * A line reads
 *   "[<ctime>] <message> [<source>:<line>] [Corvidine-<module>-<level> p#<pid>.<tid>]"
 * and goes to the current stream (stderr by default, a file, or none), and
 * the unformatted parts go to up to three registered callbacks.
 *
 * Threads: any thread may log. The level, the stream and the callback slots
 * are plain variables meant to be set at start-up; changing them while other
 * threads log is not guarded.
 */
#ifndef CORVIDINE_DEBUG_LOG_H
#define CORVIDINE_DEBUG_LOG_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Levels: lower is more severe. */
#define VESK_DEBUG_FATAL 0
#define VESK_DEBUG_ERROR 1
#define VESK_DEBUG_WARNING 2
#define VESK_DEBUG_INFO 3 /* the default maximum level */
#define VESK_DEBUG_LOW 4
#define VESK_DEBUG_MEDIUM 5
#define VESK_DEBUG_HIGH 6

/* Modules: name the subject of a message. */
#define VESK_DEBUG_MODULE_UNDEF 0
#define VESK_DEBUG_MODULE_LIB 1
#define VESK_DEBUG_MODULE_SETTINGS 2
#define VESK_DEBUG_MODULE_REPORTER_FILE 3
#define VESK_DEBUG_MODULE_REPORTER_UDP 4
#define VESK_DEBUG_MODULE_REPORTER_SSL 5
#define VESK_DEBUG_MODULE_APACHE 6
#define VESK_DEBUG_MODULE_NGINX 7
#define VESK_DEBUG_MODULE_PHP 8

#define VESK_DEBUG_LOG_SLOTS 3
#define VESK_DEBUG_MESSAGE_SIZE 1001

typedef void (*vesk_debug_log_callback)(void *context, int module, int level, const char *source_name,
                                        int source_line, const char *message);

/* Messages above this level are dropped before any formatting. Read it
 * through the macros below; set it with vesk_debug_log_level_set(). */
extern int vesk_maximum_log_level;

/* Formats and emits one message if `level` is at or below the maximum. */
void vesk_debug_logger(int module, int level, const char *source_name, int source_line, const char *format, ...)
#ifdef __GNUC__
    __attribute__((format(printf, 5, 6)))
#endif
    ;

/* Resets the log: no file, stream stderr, all callback slots empty. Returns 0. */
int vesk_debug_log_init(void);

/* Sets the maximum level for every module (`module` only names the subject). */
void vesk_debug_log_level_set(int module, int level);
int vesk_debug_log_level_get(void);
int vesk_module_log_level(int module);

/* Names of levels and modules; unknown values print as "9" and "MOD#12".
 * The returned text lives in a per-thread buffer for unknown values. */
const char *vesk_debug_log_level_name(int level);
const char *vesk_debug_module_name(int module);

/* Callback slots. add: 0 new slot, 1 same context updated, -1 null or full.
 * remove: 0, or -1 when not registered. */
int vesk_debug_log_add(vesk_debug_log_callback callback, void *context, int max_level);
int vesk_debug_log_remove(vesk_debug_log_callback callback, void *context);

/* Targets. to_file: 0 or errno; an empty or null path means no stream.
 * to_stream: 0 or errno. */
int vesk_debug_log_to_file(const char *path);
int vesk_debug_log_to_stream(FILE *stream);
int vesk_debug_log_flush(void);

/* The usage-counter rule: bumps `*counter` and returns `base_level` for the
 * first occurrence at a site, VESK_DEBUG_MEDIUM for every later one. */
int vesk_debug_usage_level(int *counter, int base_level);

#ifndef VESK_LOG_SOURCE
#ifdef __FILE_NAME__
#define VESK_LOG_SOURCE __FILE_NAME__
#else
#define VESK_LOG_SOURCE __FILE__
#endif
#endif

/* Log with the caller's source position; a suppressed level costs one
 * comparison. */
#define VESK_DEBUG_LOG(module, level, ...)                                           \
    do {                                                                             \
        int vesk_lvl_ = (level);                                                     \
        if (vesk_lvl_ <= vesk_maximum_log_level)                                     \
            vesk_debug_logger((module), vesk_lvl_, VESK_LOG_SOURCE, __LINE__, __VA_ARGS__); \
    } while (0)

/* A failure site with a usage counter of its own: the first occurrence at
 * `base_level`, every later one at `medium`. */
#define VESK_DEBUG_LOG_USAGE(module, base_level, ...)                                     \
    do {                                                                                  \
        static int vesk_usage_counter_;                                                   \
        VESK_DEBUG_LOG((module), vesk_debug_usage_level(&vesk_usage_counter_, (base_level)), \
                       __VA_ARGS__);                                                      \
    } while (0)

#ifdef __cplusplus
}
#endif

#endif
