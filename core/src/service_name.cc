// Cleaning of service keys ("token:service") into the form the Collector
// accepts for service names.
#include <string.h>

#include "corvidine/debug_log.h"
#include "corvidine/span.h"

namespace {

bool is_kept(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || c == ':' || c == '.' || c == '-' || c == '_';
}

}  // namespace

extern "C" int vesk_validate_transform_service_name(char *name, int *length) {
    if (name == nullptr || length == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "service name and/or length is NULL");
        return -1;
    }
    size_t len = strlen(name);
    if (len == 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "service name is empty");
        return -1;
    }

    // The token before the first ":" is never touched; without a ":" the
    // first character is kept as it stands.
    const char *colon = strchr(name, ':');
    size_t i = colon != nullptr ? static_cast<size_t>(colon - name) + 1 : 1;
    bool changed = false;

    // Kept characters are compacted towards the front in one pass, which is
    // the same as removing each bad character and moving the rest up.
    size_t out = i;
    for (; i < len; ++i) {
        char c = name[i];
        if (c >= 'A' && c <= 'Z') {
            name[out++] = static_cast<char>(c - 'A' + 'a');
            changed = true;
        } else if (c == ' ' || c == '\t') {  // blanks
            name[out++] = '-';
            changed = true;
        } else if (is_kept(c)) {
            name[out++] = c;
        } else {
            changed = true;
        }
    }
    if (out < len) name[out] = '\0';
    *length = static_cast<int>(out);
    return changed ? 1 : 0;
}
