// Debug log: level filter, one formatted line per message, three callback slots.
#include "corvidine/debug_log.h"

#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

int vesk_maximum_log_level = VESK_DEBUG_INFO;

namespace {

// Stands for "not initialised yet"; never dereferenced.
FILE *const kUninitialised = reinterpret_cast<FILE *>(static_cast<uintptr_t>(1));

struct LogSlot {
    vesk_debug_log_callback callback;
    void *context;
    int max_level;
};

FILE *g_stream = kUninitialised;
char g_path[VESK_DEBUG_MESSAGE_SIZE];
LogSlot g_slots[VESK_DEBUG_LOG_SLOTS];

const char *const kLevelNames[] = {"fatal", "error", "warn", "info", "low", "medium", "high"};
const char *const kModuleNames[] = {"undef", "lib", "settings", "file_reporter", "UDP_reporter",
                                    "SSL_reporter", "Apache", "Nginx", "PHP"};

void close_path_stream() {
    if (g_path[0] != '\0') {
        if (g_stream != nullptr && g_stream != kUninitialised) {
            fflush(g_stream);
            fclose(g_stream);
        }
        g_stream = nullptr;
        g_path[0] = '\0';
    }
}

}  // namespace

extern "C" {

int vesk_debug_log_init(void) {
    g_path[0] = '\0';
    g_stream = stderr;
    memset(g_slots, 0, sizeof(g_slots));
    return 0;
}

const char *vesk_debug_log_level_name(int level) {
    static thread_local char buf[16];
    if (level >= 0 && level <= VESK_DEBUG_HIGH) return kLevelNames[level];
    snprintf(buf, sizeof(buf), "%d", level);
    return buf;
}

const char *vesk_debug_module_name(int module) {
    static thread_local char buf[24];
    if (module >= 0 && module <= VESK_DEBUG_MODULE_PHP) return kModuleNames[module];
    snprintf(buf, sizeof(buf), "MOD#%d", module);
    return buf;
}

void vesk_debug_log_level_set(int module, int level) {
    (void)module;
    int old = vesk_maximum_log_level;
    vesk_maximum_log_level = level;
    if (old != level) {
        // Names may share a thread-local buffer: copy the first one.
        char old_name[16];
        snprintf(old_name, sizeof(old_name), "%s", vesk_debug_log_level_name(old));
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_UNDEF, VESK_DEBUG_INFO, "Changing log detail level from %d (%s) to %d (%s)",
                       old, old_name, level, vesk_debug_log_level_name(level));
    }
}

int vesk_debug_log_level_get(void) { return vesk_maximum_log_level; }

int vesk_module_log_level(int module) {
    (void)module;
    return vesk_maximum_log_level;
}

int vesk_debug_usage_level(int *counter, int base_level) {
    // Atomic so that concurrent failures at one site are counted, not raced.
    int count = __atomic_add_fetch(counter, 1, __ATOMIC_RELAXED);
    return count < 2 ? base_level : VESK_DEBUG_MEDIUM;
}

void vesk_debug_logger(int module, int level, const char *source_name, int source_line, const char *format, ...) {
    if (g_stream == kUninitialised) vesk_debug_log_init();
    if (level > vesk_maximum_log_level) return;

    char message[VESK_DEBUG_MESSAGE_SIZE];
    va_list ap;
    va_start(ap, format);
    vsnprintf(message, sizeof(message), format, ap);
    va_end(ap);

    FILE *stream = g_stream;
    if (stream != nullptr) {
        char when[32];
        time_t now = time(nullptr);
        if (ctime_r(&now, when) == nullptr) when[0] = '\0';
        when[24] = '\0';
        char line[VESK_DEBUG_MESSAGE_SIZE];
        char module_name[24];
        snprintf(module_name, sizeof(module_name), "%s", vesk_debug_module_name(module));
        // An overlong line loses its end: that cut is the intended limit.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
        snprintf(line, sizeof(line), "[%s] %s [%s:%d] [Corvidine-%s-%s p#%lu.%lu]", when, message,
                 source_name ? source_name : "", source_line, module_name, vesk_debug_log_level_name(level),
                 (unsigned long)getpid(), (unsigned long)syscall(SYS_gettid));
#pragma GCC diagnostic pop
        fprintf(stream, "%s\n", line);
    }

    for (const LogSlot &slot : g_slots) {
        if (slot.callback != nullptr && level <= slot.max_level)
            slot.callback(slot.context, module, level, source_name, source_line, message);
    }
}

int vesk_debug_log_add(vesk_debug_log_callback callback, void *context, int max_level) {
    if (callback == nullptr) return -1;
    if (g_stream == kUninitialised) vesk_debug_log_init();
    for (LogSlot &slot : g_slots) {
        if (slot.callback == callback && slot.context == context) {
            slot.max_level = max_level;
            return 1;
        }
    }
    for (LogSlot &slot : g_slots) {
        if (slot.callback == nullptr) {
            slot = LogSlot{callback, context, max_level};
            return 0;
        }
    }
    return -1;
}

int vesk_debug_log_remove(vesk_debug_log_callback callback, void *context) {
    if (callback == nullptr) return -1;
    for (LogSlot &slot : g_slots) {
        if (slot.callback == callback && slot.context == context) {
            slot = LogSlot{nullptr, nullptr, 0};
            return 0;
        }
    }
    return -1;
}

int vesk_debug_log_to_file(const char *path) {
    if (path == nullptr) path = "";
    if (g_stream == kUninitialised) vesk_debug_log_init();
    if (strcmp(path, g_path) == 0) return 0;
    close_path_stream();
    if (path[0] == '\0') {
        g_stream = nullptr;
        return 0;
    }
    FILE *f = fopen(path, "a");
    if (f == nullptr) return errno;
    snprintf(g_path, sizeof(g_path), "%s", path);
    g_stream = f;
    return 0;
}

int vesk_debug_log_to_stream(FILE *stream) {
    if (g_stream == kUninitialised) vesk_debug_log_init();
    if (stream == g_stream) return 0;
    if (stream != nullptr && fseek(stream, 0, SEEK_END) != 0 && errno != ESPIPE) return errno;
    close_path_stream();
    g_stream = stream;
    return 0;
}

int vesk_debug_log_flush(void) {
    if (g_stream != nullptr && g_stream != kUninitialised) return fflush(g_stream);
    return 0;
}

}  // extern "C"
