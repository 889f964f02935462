// Host names from database host descriptions and data sources.
#include "corvidine/db_host.h"

#include <string.h>

namespace {

bool starts_with(const char *text, const char *prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// The whitespace of a regular expression's \s.
bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

}  // namespace

extern "C" int vesk_db_host_from_info(const char *info, const char **host, size_t *length) {
    if (info == nullptr) return -1;
    if (starts_with(info, "Localhost") || starts_with(info, "Shared memory")) {
        *host = "localhost";
        *length = strlen("localhost");
        return 0;
    }
    if (starts_with(info, "Shared pipe") || strstr(info, "TCP/IP") == nullptr) return -1;
    const char *blank = strchr(info, ' ');
    if (blank == nullptr || blank == info) return -1;
    *host = info;
    *length = static_cast<size_t>(blank - info);
    return 0;
}

// Reads the data source as /(?:host|hostname)=(.*?)(?:\s|;)/ would: the
// leftmost "host=" or "hostname=", and the shortest value behind it that a
// blank or ';' ends. '.' stops at a line feed, and so does the value, since a
// line feed is a blank as well.
extern "C" int vesk_db_host_from_dsn(const char *dsn, size_t dsn_length, const char **host, size_t *length) {
    if (dsn == nullptr) return -1;
    static const char *const keys[] = {"host=", "hostname="};
    for (size_t at = 0; at < dsn_length; at++) {
        for (const char *key : keys) {
            size_t key_length = strlen(key);
            if (dsn_length - at < key_length || memcmp(dsn + at, key, key_length) != 0) continue;
            size_t start = at + key_length;
            for (size_t end = start; end < dsn_length; end++) {
                if (is_blank(dsn[end]) || dsn[end] == ';') {
                    *host = dsn + start;
                    *length = end - start;
                    return 0;
                }
            }
        }
    }
    return -1;
}
