// The settings table: records, layer entries and their metric writers.
#include "corvidine/settings.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "corvidine/debug_log.h"
#include "corvidine/startup.h"
#include "corvidine/token_bucket.h"

// The block is a fixed binary layout shared with tools that read it raw.
static_assert(sizeof(vesk_settings_header_t) == VESK_SETTINGS_HEADER_SIZE, "header size");
static_assert(offsetof(vesk_settings_header_t, magic) == 0, "header magic");
static_assert(offsetof(vesk_settings_header_t, version) == 4, "header version");
static_assert(offsetof(vesk_settings_header_t, flags) == 6, "header flags");
static_assert(offsetof(vesk_settings_header_t, num_settings) == 7, "header num_settings");

static_assert(sizeof(vesk_settings_t) == VESK_SETTINGS_RECORD_SIZE, "record size");
static_assert(offsetof(vesk_settings_t, magic) == 0, "record magic");
static_assert(offsetof(vesk_settings_t, timestamp) == 4, "record timestamp");
static_assert(offsetof(vesk_settings_t, type) == 8, "record type");
static_assert(offsetof(vesk_settings_t, flags) == 10, "record flags");
static_assert(offsetof(vesk_settings_t, value) == 12, "record value");
static_assert(offsetof(vesk_settings_t, ttl) == 16, "record ttl");
static_assert(offsetof(vesk_settings_t, reserved) == 20, "record reserved");
static_assert(offsetof(vesk_settings_t, layer) == 24, "record layer");
static_assert(offsetof(vesk_settings_t, bucket_capacity) == 280, "record bucket_capacity");
static_assert(offsetof(vesk_settings_t, bucket_rate) == 304, "record bucket_rate");
static_assert(offsetof(vesk_settings_t, signature_key) == 328, "record signature_key");

static_assert(sizeof(vesk_settings_layer_entry_t) == VESK_SETTINGS_LAYER_ENTRY_SIZE, "entry size");
static_assert(offsetof(vesk_settings_layer_entry_t, name) == 0, "entry name");
static_assert(offsetof(vesk_settings_layer_entry_t, request_count) == 256, "entry request_count");
static_assert(offsetof(vesk_settings_layer_entry_t, token_bucket_exhaustion_count) == 260,
              "entry exhaustion");
static_assert(offsetof(vesk_settings_layer_entry_t, trace_count) == 264, "entry trace_count");
static_assert(offsetof(vesk_settings_layer_entry_t, sample_count) == 268, "entry sample_count");
static_assert(offsetof(vesk_settings_layer_entry_t, through_count) == 272, "entry through_count");
static_assert(offsetof(vesk_settings_layer_entry_t, through_ignored_count) == 276, "entry through_ignored");
static_assert(offsetof(vesk_settings_layer_entry_t, triggered_count) == 280, "entry triggered_count");
static_assert(offsetof(vesk_settings_layer_entry_t, sample_rate) == 284, "entry sample_rate");
static_assert(offsetof(vesk_settings_layer_entry_t, sample_source) == 288, "entry sample_source");
static_assert(offsetof(vesk_settings_layer_entry_t, in_use) == 292, "entry in_use");

static_assert(VESK_SETTINGS_RECORDS_OFFSET == VESK_SETTINGS_HEADER_SIZE, "records follow the header");
static_assert(VESK_SETTINGS_LAYERS_OFFSET ==
                  VESK_SETTINGS_RECORDS_OFFSET + VESK_SETTINGS_MAX_RECORDS * VESK_SETTINGS_RECORD_SIZE,
              "layer entries follow the records");
static_assert(VESK_SETTINGS_LAYERS_END ==
                  VESK_SETTINGS_LAYERS_OFFSET + VESK_SETTINGS_MAX_LAYERS * VESK_SETTINGS_LAYER_ENTRY_SIZE,
              "end of the layer entries");
static_assert(VESK_SETTINGS_LAYERS_END <= VESK_SETTINGS_SIZE, "everything fits the block");
static_assert(VESK_SETTINGS_MAX_RECORDS <= 255, "num_settings is one byte");

char *vesk_shm_base = nullptr;

namespace {

pthread_rwlock_t settings_mutex = PTHREAD_RWLOCK_INITIALIZER;
// Layer entries have a lock of their own so that request threads looking up
// their entry do not queue behind a settings merge. Order: settings_mutex
// first, then this one.
pthread_rwlock_t entries_mutex = PTHREAD_RWLOCK_INITIALIZER;
std::mutex g_init_mutex;

// A name hash per record and per entry, kept beside the block, lets lookups
// skip string compares for all but the likely match. It is only trusted for
// a block this process allocated: an outside block may be written by others,
// and then every lookup compares strings.
bool g_index_owned = false;
char *g_local_block = nullptr;  // the block init_local allocated, if any
uint32_t g_record_hash[VESK_SETTINGS_MAX_RECORDS];
uint32_t g_entry_hash[VESK_SETTINGS_MAX_LAYERS];

// Record fields that the decision path reads without the lock.
template <typename T>
inline T load_relaxed(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T>
inline void store_relaxed(T &field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

inline vesk_settings_header_t *header() {
    return reinterpret_cast<vesk_settings_header_t *>(vesk_shm_base);
}
inline vesk_settings_t *records() {
    return reinterpret_cast<vesk_settings_t *>(vesk_shm_base + VESK_SETTINGS_RECORDS_OFFSET);
}
inline vesk_settings_layer_entry_t *entries() {
    return reinterpret_cast<vesk_settings_layer_entry_t *>(vesk_shm_base + VESK_SETTINGS_LAYERS_OFFSET);
}

inline int num_records() {
    int n = header()->num_settings;
    return n > VESK_SETTINGS_MAX_RECORDS ? VESK_SETTINGS_MAX_RECORDS : n;
}

// FNV-1a over at most `limit` characters, stopping at the NUL.
inline uint32_t name_hash(const char *s, size_t limit) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < limit && s[i] != '\0'; ++i) {
        h ^= static_cast<unsigned char>(s[i]);
        h *= 16777619u;
    }
    return h;
}

// Copies at most size-1 characters and always terminates.
void copy_name(char *to, const char *from, size_t size) {
    size_t n = strnlen(from, size - 1);
    memcpy(to, from, n);
    to[n] = '\0';
}

inline bool record_live(const vesk_settings_t *r) {
    return load_relaxed(r->magic) == VESK_SETTINGS_MAGIC &&
           (load_relaxed(r->flags) & VESK_SETTINGS_FLAG_INVALID) == 0;
}

// The first live record of `type` named `layer` (any name when null).
// Caller holds settings_mutex.
vesk_settings_t *find_record(int type, const char *layer) {
    vesk_settings_t *recs = records();
    int n = num_records();
    if (layer == nullptr) {
        for (int i = 0; i < n; ++i)
            if (load_relaxed(recs[i].type) == type && record_live(&recs[i])) return &recs[i];
        return nullptr;
    }
    const bool indexed = g_index_owned;
    const uint32_t h = indexed ? name_hash(layer, VESK_SETTINGS_NAME_SIZE) : 0;
    for (int i = 0; i < n; ++i) {
        if (indexed && g_record_hash[i] != h) continue;
        if (load_relaxed(recs[i].type) != type || !record_live(&recs[i])) continue;
        if (strncmp(recs[i].layer, layer, VESK_SETTINGS_NAME_SIZE) == 0) return &recs[i];
    }
    return nullptr;
}

// Entry names are cut at 255 characters; a longer service name shares the
// entry of its first 255 characters.
constexpr size_t kEntryNameMax = VESK_SETTINGS_NAME_SIZE - 1;

// Caller holds entries_mutex (either mode).
vesk_settings_layer_entry_t *find_entry(const char *name) {
    vesk_settings_layer_entry_t *e = entries();
    const bool indexed = g_index_owned;
    const uint32_t h = indexed ? name_hash(name, kEntryNameMax) : 0;
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        if (indexed && g_entry_hash[i] != h) continue;
        if (__atomic_load_n(&e[i].in_use, __ATOMIC_ACQUIRE) != 1) continue;
        if (strncmp(e[i].name, name, kEntryNameMax) == 0) return &e[i];
    }
    return nullptr;
}

void clear_entry(vesk_settings_layer_entry_t *e) {
    size_t i = static_cast<size_t>(e - entries());
    __atomic_store_n(&e->in_use, 0, __ATOMIC_RELEASE);
    memset(e->name, 0, sizeof(e->name));
    uint32_t *counters[] = {
        &e->request_count, &e->token_bucket_exhaustion_count, &e->trace_count,     &e->sample_count,
        &e->through_count, &e->through_ignored_count,         &e->triggered_count, &e->sample_rate,
        &e->sample_source};
    for (uint32_t *c : counters) __atomic_store_n(c, 0u, __ATOMIC_RELAXED);
    g_entry_hash[i] = 0;
}

void write_header() {
    vesk_settings_header_t *h = header();
    h->magic = VESK_SETTINGS_MAGIC;
    h->version = VESK_SETTINGS_VERSION;
    h->flags = 0;
    h->num_settings = 0;
}

// Rebuilds the name index from the block, for a block that already holds data.
void rebuild_index() {
    memset(g_record_hash, 0, sizeof(g_record_hash));
    memset(g_entry_hash, 0, sizeof(g_entry_hash));
    if (vesk_shm_base == nullptr) return;
    int n = num_records();
    for (int i = 0; i < n; ++i) g_record_hash[i] = name_hash(records()[i].layer, VESK_SETTINGS_NAME_SIZE);
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i)
        if (entries()[i].in_use == 1) g_entry_hash[i] = name_hash(entries()[i].name, kEntryNameMax);
}

struct WriteLock {
    explicit WriteLock(pthread_rwlock_t *l) : lock(l), rc(pthread_rwlock_wrlock(l)) {}
    ~WriteLock() {
        if (rc == 0) pthread_rwlock_unlock(lock);
    }
    pthread_rwlock_t *lock;
    int rc;
};

struct ReadLock {
    explicit ReadLock(pthread_rwlock_t *l) : lock(l), rc(pthread_rwlock_rdlock(l)) {}
    ~ReadLock() {
        if (rc == 0) pthread_rwlock_unlock(lock);
    }
    pthread_rwlock_t *lock;
    int rc;
};

void fill_doubles(double *to, const double *from) {
    for (int i = 0; i < VESK_BUCKET_COUNT; ++i) to[i] = from ? from[i] : 0.0;
}

using CounterField = uint32_t vesk_settings_layer_entry_t::*;

// One array element per entry in use: { name, tags { SN }, value }.
void append_counter(vesk_bson_buffer *b, int *index, const char *metric, CounterField field, bool reset) {
    if (b == nullptr || index == nullptr || vesk_shm_base == nullptr) return;
    ReadLock lock(&entries_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return;
    }
    vesk_settings_layer_entry_t *e = entries();
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        if (__atomic_load_n(&e[i].in_use, __ATOMIC_ACQUIRE) != 1) continue;
        uint32_t *counter = &(e[i].*field);
        uint32_t value = reset ? __atomic_exchange_n(counter, 0u, __ATOMIC_RELAXED)
                               : __atomic_load_n(counter, __ATOMIC_RELAXED);
        // Array keys share the metrics message's 4-byte key buffer: indexes
        // from 1000 on keep their first three digits.
        char key[4];
        snprintf(key, sizeof(key), "%d", *index);
        vesk_bson_append_start_object(b, key);
        vesk_bson_append_string(b, "name", metric);
        vesk_bson_append_start_object(b, "tags");
        if (e[i].name[0] != '\0') vesk_bson_append_string(b, "SN", e[i].name);
        vesk_bson_append_finish_object(b);
        vesk_bson_append_int(b, "value", static_cast<int32_t>(value));
        vesk_bson_append_finish_object(b);
        ++*index;
    }
}

}  // namespace

extern "C" {

int vesk_settings_init_local(void) {
    std::lock_guard<std::mutex> guard(g_init_mutex);
    if (vesk_shm_base != nullptr) return 0;
    void *block = calloc(1, VESK_SETTINGS_SIZE);
    if (block == nullptr) {
        int err = errno;
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR,
                             "Failed to allocate %u bytes for settings - err#%d %s",
                             (unsigned)VESK_SETTINGS_SIZE, err, strerror(err));
        return -1;
    }
    WriteLock lock(&settings_mutex);
    WriteLock elock(&entries_mutex);
    vesk_shm_base = static_cast<char *>(block);
    g_local_block = vesk_shm_base;
    write_header();
    memset(g_record_hash, 0, sizeof(g_record_hash));
    memset(g_entry_hash, 0, sizeof(g_entry_hash));
    g_index_owned = true;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_LOW,
                   "Using local non-shared settings memory buffer");
    return 0;
}

void _vesk_settings_set_shmaddr(void *addr) {
    WriteLock lock(&settings_mutex);
    WriteLock elock(&entries_mutex);
    vesk_shm_base = static_cast<char *>(addr);
    g_index_owned = vesk_shm_base != nullptr && vesk_shm_base == g_local_block;
    rebuild_index();
}

void _vesk_settings_reset(void) {
    WriteLock lock(&settings_mutex);
    WriteLock elock(&entries_mutex);
    if (vesk_shm_base == nullptr) return;
    memset(vesk_shm_base, 0, VESK_SETTINGS_SIZE);
    write_header();
    memset(g_record_hash, 0, sizeof(g_record_hash));
    memset(g_entry_hash, 0, sizeof(g_entry_hash));
}

int vesk_settings_wr_init(void) {
    if (vesk_shm_base == nullptr) return 0;
    WriteLock elock(&entries_mutex);
    memset(vesk_shm_base + VESK_SETTINGS_LAYERS_OFFSET, 0,
           VESK_SETTINGS_MAX_LAYERS * sizeof(vesk_settings_layer_entry_t));
    memset(g_entry_hash, 0, sizeof(g_entry_hash));
    return 0;
}

int vesk_settings_get_version(void) {
    return VESK_SETTINGS_VERSION;
}

vesk_settings_t *vesk_settings_inspect(uint32_t *magic, uint16_t *version, uint8_t *flags, uint8_t *num) {
    if (vesk_shm_base == nullptr) return nullptr;
    vesk_settings_header_t *h = header();
    if (magic) *magic = h->magic;
    if (version) *version = h->version;
    if (flags) *flags = h->flags;
    if (num) *num = h->num_settings;
    return records();
}

vesk_settings_t *vesk_settings_get(int type, const char *layer) {
    if (vesk_shm_base == nullptr) return nullptr;
    ReadLock lock(&settings_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return nullptr;
    }
    return find_record(type, layer);
}

int vesk_settings_add(const char *layer, int type, unsigned value, int flags, unsigned timestamp,
                      unsigned ttl, const double capacity[3], const double rate[3], const char *key,
                      int touch_default) {
    if (layer == nullptr) layer = "";
    if (vesk_settings_get(type, layer) != nullptr) return -2;
    if (vesk_shm_base == nullptr) return -1;

    WriteLock lock(&settings_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return -1;
    }
    // Checked again under the lock: another writer may have added it since.
    if (find_record(type, layer) != nullptr) return -2;

    vesk_settings_t *recs = records();
    int n = num_records();
    int index = -1;
    bool fresh = false;
    if (n < VESK_SETTINGS_MAX_RECORDS) {
        index = n;
        fresh = true;
    } else {
        // Reuse the place of the record deleted longest ago; first of equals.
        for (int i = 0; i < VESK_SETTINGS_MAX_RECORDS; ++i) {
            if ((load_relaxed(recs[i].flags) & VESK_SETTINGS_FLAG_INVALID) == 0) continue;
            if (index < 0 || load_relaxed(recs[i].timestamp) < load_relaxed(recs[index].timestamp)) index = i;
        }
        if (index < 0) return -2;
    }

    // Request threads may hold a pointer to this place and read its small
    // fields without the lock: those are written one by one, magic last.
    vesk_settings_t *r = &recs[index];
    store_relaxed(r->magic, 0u);
    store_relaxed(r->flags, static_cast<uint16_t>(VESK_SETTINGS_FLAG_INVALID));
    memset(r->layer, 0, sizeof(r->layer));
    memset(r->signature_key, 0, sizeof(r->signature_key));
    copy_name(r->layer, layer, sizeof(r->layer));
    store_relaxed(r->value, static_cast<uint32_t>(value));
    store_relaxed(r->timestamp, static_cast<uint32_t>(timestamp));
    store_relaxed(r->type, static_cast<uint16_t>(type));
    store_relaxed(r->ttl, static_cast<uint32_t>(ttl));
    store_relaxed(r->reserved, 0u);
    fill_doubles(r->bucket_capacity, capacity);
    fill_doubles(r->bucket_rate, rate);
    if (key != nullptr) copy_name(r->signature_key, key, sizeof(r->signature_key));
    store_relaxed(r->flags, static_cast<uint16_t>(flags));
    store_relaxed(r->magic, static_cast<uint32_t>(VESK_SETTINGS_MAGIC));
    g_record_hash[index] = name_hash(r->layer, VESK_SETTINGS_NAME_SIZE);
    if (fresh) header()->num_settings = static_cast<uint8_t>(index + 1);

    // A changed timestamp on the default record is what makes the decision
    // refresh after a change that touched only layer records.
    if (type != VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE && touch_default) {
        vesk_settings_t *def = find_record(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
        if (def != nullptr) store_relaxed(def->timestamp, static_cast<uint32_t>(timestamp));
    }
    return 0;
}

int vesk_settings_update(const char *layer, int type, unsigned value, int flags, unsigned timestamp,
                         unsigned ttl, const double capacity[3], const double rate[3], const char *key) {
    if (layer == nullptr) layer = "";
    if (vesk_shm_base == nullptr) return -2;
    WriteLock lock(&settings_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return -1;
    }
    vesk_settings_t *r = find_record(type, layer);
    if (r == nullptr) return -2;
    store_relaxed(r->value, static_cast<uint32_t>(value));
    store_relaxed(r->flags, static_cast<uint16_t>(flags));
    store_relaxed(r->timestamp, static_cast<uint32_t>(timestamp));
    store_relaxed(r->ttl, static_cast<uint32_t>(ttl));
    fill_doubles(r->bucket_capacity, capacity);
    fill_doubles(r->bucket_rate, rate);
    if (key != nullptr) {
        memset(r->signature_key, 0, sizeof(r->signature_key));
        copy_name(r->signature_key, key, sizeof(r->signature_key));
    }
    return 0;
}

int vesk_settings_delete(int type, const char *layer) {
    if (layer == nullptr) layer = "";
    if (vesk_shm_base == nullptr) return -2;
    WriteLock lock(&settings_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return -1;
    }
    vesk_settings_t *r = find_record(type, layer);
    if (r == nullptr) return -2;
    store_relaxed(r->type, static_cast<uint16_t>(VESK_SETTINGS_TYPE_DELETED));
    store_relaxed(r->flags, static_cast<uint16_t>(VESK_SETTINGS_FLAG_INVALID));
    store_relaxed(r->timestamp, static_cast<uint32_t>(_vesk_clock_time()));
    fill_doubles(r->bucket_capacity, nullptr);
    fill_doubles(r->bucket_rate, nullptr);

    // The service's counters go with its record. An entry that does not
    // exist yet would be created only to be cleared, so just clear a found one.
    WriteLock elock(&entries_mutex);
    if (elock.rc == 0) {
        vesk_settings_layer_entry_t *e = find_entry(r->layer);
        if (e != nullptr) clear_entry(e);
    }
    return 0;
}

vesk_settings_t *vesk_settings_get_layer_sample_rate(const char *layer) {
    if (vesk_shm_base == nullptr) return nullptr;
    ReadLock lock(&settings_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return nullptr;
    }
    if (layer != nullptr) {
        vesk_settings_t *r = find_record(VESK_SETTINGS_TYPE_LAYER_SAMPLE_RATE, layer);
        if (r != nullptr) return r;
    }
    return find_record(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
}

int vesk_settings_get_value(const vesk_settings_t *record, unsigned *value, uint16_t *flags,
                            unsigned *timestamp) {
    if (record == nullptr) return -2;
    uint32_t magic = load_relaxed(record->magic);
    if (magic != VESK_SETTINGS_MAGIC) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_MEDIUM,
                       "vesk_settings_get_value: Invalid magic 0x%X => -2", magic);
        return -2;
    }
    uint16_t f = load_relaxed(record->flags);
    if (f & VESK_SETTINGS_FLAG_INVALID) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_MEDIUM,
                       "vesk_settings_get_value: Flagged invalid => -1");
        return -1;
    }
    uint32_t v = load_relaxed(record->value);
    if (v > VESK_SETTINGS_MAX_SAMPLE_RATE) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_MEDIUM,
                       "vesk_settings_get_value: Invalid value %u => -2", v);
        return -2;
    }
    if (value) *value = v;
    if (flags) *flags = f;
    if (timestamp) *timestamp = load_relaxed(record->timestamp);
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                   "vesk_settings_get_value: flags=%X value=%u => 0", f, v);
    return 0;
}

int vesk_is_ready(unsigned wait_ms) {
    vesk_reporter_t *reporter = vesk_reporter_get();
    if (wait_ms > 0) {
        struct timespec start, now;
        clock_gettime(CLOCK_MONOTONIC, &start);
        while (vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "") == nullptr) {
            clock_gettime(CLOCK_MONOTONIC, &now);
            int64_t elapsed_ns =
                static_cast<int64_t>(now.tv_sec - start.tv_sec) * 1000000000 + (now.tv_nsec - start.tv_nsec);
            if (elapsed_ns >= static_cast<int64_t>(wait_ms) * 1000000) break;
            usleep(200);
        }
    }
    if (reporter == nullptr || reporter->get_server_response == nullptr) return 0;
    return reporter->get_server_response(vesk_reporter_get_context(reporter));
}

vesk_settings_layer_entry_t *vesk_settings_entry_layer_get(const char *name) {
    if (vesk_shm_base == nullptr) return nullptr;
    if (name == nullptr) name = "";
    {
        ReadLock lock(&entries_mutex);
        if (lock.rc != 0) {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                                 strerror(lock.rc));
            return nullptr;
        }
        vesk_settings_layer_entry_t *e = find_entry(name);
        if (e != nullptr) return e;
    }
    WriteLock lock(&entries_mutex);
    if (lock.rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(lock.rc));
        return nullptr;
    }
    vesk_settings_layer_entry_t *e = find_entry(name);  // someone may have taken it meanwhile
    if (e != nullptr) return e;
    vesk_settings_layer_entry_t *all = entries();
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        if (all[i].in_use != 0) continue;
        copy_name(all[i].name, name, kEntryNameMax + 1);
        g_entry_hash[i] = name_hash(all[i].name, kEntryNameMax);
        __atomic_store_n(&all[i].in_use, 1, __ATOMIC_RELEASE);
        return &all[i];
    }
    VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR,
                         "Failed to allocate a bucket - rate limiting inoperative for service %s\n", name);
    return nullptr;
}

void vesk_settings_append_request_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "RequestCount", &vesk_settings_layer_entry_t::request_count, true);
}
void vesk_settings_append_token_bucket_exhaustion_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "TokenBucketExhaustionCount",
                   &vesk_settings_layer_entry_t::token_bucket_exhaustion_count, true);
}
void vesk_settings_append_trace_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "TraceCount", &vesk_settings_layer_entry_t::trace_count, true);
}
void vesk_settings_append_sample_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "SampleCount", &vesk_settings_layer_entry_t::sample_count, true);
}
void vesk_settings_append_through_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "ThroughTraceCount", &vesk_settings_layer_entry_t::through_count, true);
}
void vesk_settings_append_through_ignored_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "ThroughIgnoredCount", &vesk_settings_layer_entry_t::through_ignored_count,
                   true);
}
void vesk_settings_append_triggered_count(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "TriggeredCount", &vesk_settings_layer_entry_t::triggered_count, true);
}
void vesk_settings_append_sample_rate(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "SampleRate", &vesk_settings_layer_entry_t::sample_rate, false);
}
void vesk_settings_append_sample_source(vesk_bson_buffer *b, int *index) {
    append_counter(b, index, "SampleSource", &vesk_settings_layer_entry_t::sample_source, false);
}

int _vesk_settings_read_lock(void) {
    return pthread_rwlock_rdlock(&settings_mutex);
}
void _vesk_settings_read_unlock(void) {
    pthread_rwlock_unlock(&settings_mutex);
}

}  // extern "C"
