// Events: identifier, BSON document, stamping and hand-over to the reporter.
#include "corvidine/event.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "corvidine/debug_log.h"
#include "corvidine/random.h"
#include "corvidine/startup.h"

namespace {

// The event ignores additions once its identifier is unusable.
// The kernel's thread id, asked once per thread and again after a fork (the
// child's thread inherits the parent's thread-local copy).
int64_t thread_id() {
    static thread_local int64_t tid = 0;
    static thread_local pid_t tid_pid = 0;
    pid_t pid = vesk_current_pid();
    if (tid_pid != pid) {
        tid = static_cast<int64_t>(syscall(SYS_gettid));
        tid_pid = pid;
    }
    return tid;
}

bool accepts(const vesk_event_t *evt) { return vesk_metadata_is_valid(&evt->metadata) != 0; }

int appended(const vesk_bson_buffer *result) { return result ? 0 : -1; }

}  // namespace

extern "C" {

int vesk_event_init(vesk_event_t *evt, const vesk_metadata_t *md, const uint8_t *op_id) {
    assert(evt);
    assert(md);
    memset(evt, 0, sizeof(*evt));
    vesk_metadata_init(&evt->metadata);
    evt->metadata.version = md->version;
    evt->metadata.task_len = md->task_len;
    evt->metadata.op_len = md->op_len;
    evt->metadata.flags = md->flags;
    memcpy(evt->metadata.task_id, md->task_id, VESK_MAX_TASK_ID_LEN);
    if (op_id != nullptr)
        memcpy(evt->metadata.op_id, op_id, VESK_MAX_OP_ID_LEN);
    else
        vesk_random_op_id(evt->metadata.op_id);

    if (vesk_bson_buffer_init(&evt->buffer) == nullptr) return -1;
    char xtrace[VESK_MAX_METADATA_STRING_LEN];
    if (vesk_metadata_tostr(&evt->metadata, xtrace, sizeof(xtrace)) != 0 ||
        vesk_bson_append_string(&evt->buffer, "_V", "1") == nullptr ||
        vesk_bson_append_string(&evt->buffer, "X-Trace", xtrace) == nullptr) {
        vesk_bson_buffer_destroy(&evt->buffer);
        return -1;
    }
    return 0;
}

int vesk_metadata_create_event(const vesk_metadata_t *md, vesk_event_t *evt) {
    if (vesk_event_init(evt, md, nullptr) != 0) return -1;
    if (vesk_event_add_edge(evt, md) != 0) {
        vesk_event_destroy(evt);
        return -1;
    }
    return 0;
}

int vesk_event_destroy(vesk_event_t *evt) {
    assert(evt);
    if (evt->document != nullptr) {
        // The finished document is the buffer's own memory.
        vesk_bson_buffer_destroy(&evt->buffer);
        evt->document = nullptr;
    } else {
        vesk_bson_buffer_destroy(&evt->buffer);
    }
    vesk_metadata_destroy(&evt->metadata);
    return 0;
}

int vesk_event_add_info(vesk_event_t *evt, const char *key, const char *value) {
    assert(evt);
    assert(key);
    if (!accepts(evt) || value == nullptr) return 0;
    // Request data can carry any bytes: the writer repairs what is not UTF-8.
    return appended(vesk_bson_append_string_n(&evt->buffer, key, value, strlen(value)));
}

int vesk_event_add_info_binary(vesk_event_t *evt, const char *key, const void *value, size_t len) {
    assert(evt);
    assert(key);
    if (!accepts(evt) || value == nullptr) return 0;
    return appended(vesk_bson_append_binary(&evt->buffer, key, value, len));
}

int vesk_event_add_info_int64(vesk_event_t *evt, const char *key, int64_t value) {
    assert(evt);
    assert(key);
    if (!accepts(evt)) return 0;
    return appended(vesk_bson_append_long(&evt->buffer, key, value));
}

int vesk_event_add_info_double(vesk_event_t *evt, const char *key, double value) {
    assert(evt);
    assert(key);
    if (!accepts(evt)) return 0;
    return appended(vesk_bson_append_double(&evt->buffer, key, value));
}

int vesk_event_add_info_bool(vesk_event_t *evt, const char *key, int value) {
    assert(evt);
    assert(key);
    if (!accepts(evt)) return 0;
    return appended(vesk_bson_append_bool(&evt->buffer, key, value != 0));
}

int vesk_event_add_info_bson(vesk_event_t *evt, const char *key, const vesk_bson *value) {
    assert(evt);
    assert(key);
    if (!accepts(evt) || value == nullptr) return 0;
    return appended(vesk_bson_append_bson(&evt->buffer, key, value));
}

int vesk_event_add_edge(vesk_event_t *evt, const vesk_metadata_t *md) {
    assert(evt);
    assert(md);
    if (!accepts(evt)) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Attempt to add an edge with invalid metadata - ignored");
        return 0;
    }
    if (memcmp(evt->metadata.task_id, md->task_id, VESK_MAX_TASK_ID_LEN) != 0) return -1;
    char hex[2 * VESK_MAX_OP_ID_LEN + 1];
    size_t op_len = evt->metadata.op_len;
    vesk_btoh(md->op_id, hex, op_len);
    hex[2 * op_len] = '\0';
    return appended(vesk_bson_append_string(&evt->buffer, "Edge", hex));
}

int vesk_event_add_edge_fromstr(vesk_event_t *evt, const char *buf, size_t len) {
    assert(evt);
    assert(buf);
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (vesk_metadata_fromstr(&md, buf, len) != 0) return -1;
    return vesk_event_add_edge(evt, &md);
}

int vesk_event_add_timestamp(vesk_event_t *evt) {
    assert(evt);
    if (!accepts(evt)) return 0;
    struct timeval tv;
    vesk_gettimeofday(&tv);
    if (vesk_bson_append_long(&evt->buffer, "TID", thread_id()) == nullptr) return -1;
    int64_t usec = static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
    return appended(vesk_bson_append_long(&evt->buffer, "Timestamp_u", usec));
}

int vesk_event_add_hostname(vesk_event_t *evt) {
    assert(evt);
    if (!accepts(evt)) return 0;
    return appended(vesk_bson_append_string(&evt->buffer, "Hostname", vesk_hostname_get()));
}

int vesk_event_send(int channel, vesk_event_t *evt, vesk_metadata_t *md) {
    if (vesk_reporter_pid() != vesk_current_pid()) vesk_init(nullptr);  // a forked child gets its own reporter
    if (evt == nullptr || md == nullptr) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Send failed - missing parameters");
        return VESK_SEND_MISSING_PARAMETERS;
    }
    char md_str[VESK_MAX_METADATA_STRING_LEN];
    if (!vesk_metadata_is_valid(md)) {
        vesk_metadata_tostr(md, md_str, sizeof(md_str));
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Send aborted - invalid metadata \"%s\"", md_str);
        return 0;
    }
    if (memcmp(md->task_id, evt->metadata.task_id, md->task_len) != 0) {
        char evt_str[VESK_MAX_METADATA_STRING_LEN];
        vesk_metadata_tostr(md, md_str, sizeof(md_str));
        vesk_metadata_tostr(&evt->metadata, evt_str, sizeof(evt_str));
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR,
                             "Send aborted - metadata \"%s\" has different task ID than event's \"%s\" of len %lu",
                             md_str, evt_str, (unsigned long)md->task_len);
        return -1;
    }
    if (memcmp(md->op_id, evt->metadata.op_id, md->op_len) == 0) {
        char evt_str[VESK_MAX_METADATA_STRING_LEN];
        vesk_metadata_tostr(md, md_str, sizeof(md_str));
        vesk_metadata_tostr(&evt->metadata, evt_str, sizeof(evt_str));
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR,
                             "Send aborted - metadata \"%s\" has duplicate op ID as event's of \"%s\" of len %lu",
                             md_str, evt_str, (unsigned long)md->op_len);
        return -1;
    }
    int rc = vesk_event_add_timestamp(evt);
    if (rc < 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Send aborted - failed to add timestamp (rc=%d)",
                             rc);
        return rc;
    }
    if (vesk_hostname_get()[0] == '\0') vesk_ensure_init();
    rc = vesk_event_add_hostname(evt);
    if (rc < 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Send aborted - failed to add hostname (rc=%d)",
                             rc);
        return rc;
    }
    // The caller's record now names this event, also if the hand-over fails.
    memcpy(md->op_id, evt->metadata.op_id, VESK_MAX_OP_ID_LEN);

    evt->document = vesk_bson_buffer_finish(&evt->buffer);
    if (evt->document == nullptr) return -1;
    size_t length = static_cast<size_t>(evt->buffer.cur - evt->buffer.data);
    rc = vesk_raw_send(channel, evt->document, length);
    if (rc < 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Send failed - reporter returned %d", rc);
    }
    return rc;
}

}  // extern "C"
