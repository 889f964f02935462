// The file reporter: documents go to a file as they are, with no framing of
// our own (each BSON document starts with its length), either appended to one
// file kept open, or each into a file of its own.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "corvidine/debug_log.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"
#include "corvidine/settings.h"

namespace {

constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
constexpr mode_t kOpenMode = 0644;

// One write per document: with O_APPEND, documents from concurrent request
// threads do not interleave.
ssize_t write_document(int fd, const char *data, size_t len) {
    ssize_t n;
    do {
        n = write(fd, data, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

// The output path: a path without an extension after its last separator gets
// the process id appended, so that forked workers write separate files.
void build_path(const char *host, char *out, size_t size) {
    const char *path = (host != nullptr && host[0] != '\0') ? host : VESK_FILE_DEFAULT_PATH;
    const char *dot = strrchr(path, '.');
    const char *sep = strrchr(path, '/');
    if (sep == nullptr) sep = strrchr(path, '\\');

    snprintf(out, size, "%s", path);
    if (dot == nullptr || (sep != nullptr && dot < sep)) {
        size_t used = strlen(out);
        if (used < size - 1) snprintf(out + used, size - used, "%ld", static_cast<long>(getpid()));
    }
}

ssize_t file_send_persistent(vesk_file_descriptor *fd_record, const char *data, size_t len) {
    ssize_t n = write_document(fd_record->fd, data, len);
    fsync(fd_record->fd);
    return n;
}

ssize_t file_send_single(vesk_file_descriptor *fd_record, const char *data, size_t len) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t usec = static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;

    char name[VESK_FILE_PATH_SIZE];
    // An overlong name is cut at the buffer; open then tells whether it works.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
    snprintf(name, sizeof(name), "%s-%" PRIu64, fd_record->path, usec);
#pragma GCC diagnostic pop
    int fd = open(name, kOpenFlags, kOpenMode);
    if (fd < 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_FILE, VESK_DEBUG_ERROR,
                             "Failed to open log file '%s' - ignored (rc=%d)", name, errno);
        return -1;
    }
    ssize_t n = write_document(fd, data, len);
    close(fd);
    return n;
}

ssize_t file_send(void *ctx, int /*channel*/, const char *data, size_t len) {
    vesk_file_descriptor *fd_record = static_cast<vesk_file_descriptor *>(ctx);
    if (fd_record == nullptr || data == nullptr) return -1;
    return fd_record->per_message ? file_send_single(fd_record, data, len)
                                  : file_send_persistent(fd_record, data, len);
}

int file_destroy(void *ctx) {
    vesk_file_descriptor *fd_record = static_cast<vesk_file_descriptor *>(ctx);
    if (fd_record == nullptr) return 0;
    if (fd_record->fd >= 0) close(fd_record->fd);
    free(fd_record);
    return 0;
}

}  // namespace

extern "C" int vesk_reporter_init_file(vesk_reporter_t *reporter, const vesk_init_options_t *options) {
    if (reporter == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_FILE, VESK_DEBUG_ERROR, "NULL reporter passed in");
        return VESK_REPORTER_INIT_NO_TABLE;
    }
    _vesk_local_reporter_prepare(reporter, options);

    vesk_file_descriptor *fd_record =
        static_cast<vesk_file_descriptor *>(_vesk_local_record_alloc(sizeof(*fd_record)));
    if (fd_record == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_FILE, VESK_DEBUG_ERROR,
                             "Failed to allocate memory for file descriptor");
        return VESK_REPORTER_INIT_NO_MEMORY;
    }
    build_path(options ? options->host : nullptr, fd_record->path, sizeof(fd_record->path));
    fd_record->per_message = options ? options->file_single : 0;
    fd_record->fd = -1;

    if (!fd_record->per_message) {
        fd_record->fd = open(fd_record->path, kOpenFlags, kOpenMode);
        if (fd_record->fd < 0) {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_FILE, VESK_DEBUG_ERROR,
                                 "Failed to open log file '%s' - ignored (rc=%d)", fd_record->path, errno);
            free(fd_record);
            return VESK_REPORTER_INIT_FILE_OPEN;
        }
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_FILE, VESK_DEBUG_LOW,
                   "Reporter appending messages to log file '%s'", fd_record->path);

    reporter->context = fd_record;
    _vesk_local_reporter_fill_common(reporter);
    reporter->send = file_send;
    reporter->destroy = file_destroy;

    if (_vesk_local_settings_install(
            VESK_SETTINGS_MAX_SAMPLE_RATE,
            VESK_SETTINGS_FLAG_SAMPLE_START | VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS,
            _vesk_local_bucket_option(options ? options->token_bucket_capacity : -1),
            _vesk_local_bucket_option(options ? options->token_bucket_rate : -1),
            VESK_LOCAL_SIGNATURE_KEY) != 0)
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING,
                             "Failed to initialize settings for local operation.");
    return VESK_REPORTER_INIT_OK;
}
