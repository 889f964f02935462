// The reporters that can be chosen by name: the built-in table that
// reporters/ provides, and those registered at run time.
#include <string.h>

#include <mutex>

#include "corvidine/reporter.h"

namespace {

constexpr int kMaxRegistered = 8;
vesk_reporter_entry_t g_registered[kMaxRegistered];
int g_registered_count = 0;
std::mutex g_registered_mutex;

}  // namespace

extern "C" {

int vesk_reporter_entry_register(const char *name, vesk_reporter_init_fn init) {
    if (name == nullptr || init == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_registered_mutex);
    for (int i = 0; i < g_registered_count; i++) {
        if (strcmp(g_registered[i].name, name) == 0) {
            g_registered[i].init = init;
            return 0;
        }
    }
    if (g_registered_count == kMaxRegistered) return -1;
    // The name is the caller's static text.
    g_registered[g_registered_count++] = {name, init};
    return 0;
}

const vesk_reporter_entry_t *vesk_reporter_entry_find(const char *name) {
    if (name == nullptr) return nullptr;
    {
        std::lock_guard<std::mutex> lock(g_registered_mutex);
        for (int i = 0; i < g_registered_count; i++)
            if (strcmp(g_registered[i].name, name) == 0) return &g_registered[i];
    }
    for (const vesk_reporter_entry_t *e = vesk_builtin_reporters; e->name != nullptr; e++)
        if (strcmp(e->name, name) == 0) return e;
    return nullptr;
}

}  // extern "C"
