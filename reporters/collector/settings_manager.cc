#include "settings_manager.h"

#include <string.h>
#include <time.h>

#include <tuple>

#include "corvidine/debug_log.h"

namespace corvidine {

namespace wire = ::collector::thrift;

#define SETTINGS_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, level, __VA_ARGS__)
#define SETTINGS_USAGE(level, ...) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, level, __VA_ARGS__)

namespace {

using MergeKey = std::tuple<uint16_t, std::string>;

MergeKey keyOf(const vesk_settings_t &s) { return MergeKey(s.type, std::string(s.layer)); }

// A double from its 8 raw bytes; shorter values count as missing.
double argumentDouble(const std::map<std::string, std::string> &arguments, const char *key) {
    std::string raw;
    if (!VeskSettingsManager2::getSettingArgumentValue(arguments, key, &raw) || raw.size() < sizeof(double)) return 0;
    double v;
    memcpy(&v, raw.data(), sizeof(v));
    return v;
}

void logRecord(const vesk_settings_t &s) {
    SETTINGS_LOG(VESK_DEBUG_HIGH,
                 "\ttype:%d\tflags:%d\ttimestamp:%d\tvalue:%d\tlayer:%s\tttl:%d\tbucket\tcapacity/rate:%f/%f"
                 "\trelaxed-capacity/rate:%f/%f\tstrict-capacity/rate:%f/%f",
                 s.type, s.flags, s.timestamp, s.value, s.layer, s.ttl, s.bucket_capacity[0], s.bucket_rate[0],
                 s.bucket_capacity[1], s.bucket_rate[1], s.bucket_capacity[2], s.bucket_rate[2]);
}

void fixNegative(double &v, const char *message) {
    if (v < 0) {
        SETTINGS_USAGE(VESK_DEBUG_WARNING, message, static_cast<int>(v), 0);
        v = 0;
    }
}

}  // namespace

uint8_t flags_str2bin(const std::string &flags) {
    static const std::pair<const char *, uint8_t> kNames[] = {
        {"OVERRIDE", VESK_SETTINGS_FLAG_OVERRIDE},
        {"SAMPLE_START", VESK_SETTINGS_FLAG_SAMPLE_START},
        {"SAMPLE_THROUGH", VESK_SETTINGS_FLAG_SAMPLE_THROUGH},
        {"SAMPLE_THROUGH_ALWAYS", VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS},
        {"TRIGGER_TRACE", VESK_SETTINGS_FLAG_TRIGGER_TRACE},
    };
    uint8_t bits = 0;
    size_t start = 0;
    while (start <= flags.size()) {
        size_t end = flags.find(',', start);
        if (end == std::string::npos) end = flags.size();
        std::string name = flags.substr(start, end - start);
        for (const auto &n : kNames)
            if (name == n.first) bits |= n.second;
        start = end + 1;
    }
    return bits;
}

VeskSettingsManager2::VeskSettingsManager2() { is_open = open(); }

bool VeskSettingsManager2::open() {
    if (vesk_settings_wr_init() < 0) {
        SETTINGS_USAGE(VESK_DEBUG_ERROR, "Error opening Corvidine settings file, updates disabled.");
        return false;
    }
    return true;
}

bool VeskSettingsManager2::getSettingArgumentValue(const std::map<std::string, std::string> &arguments,
                                                   const std::string &key, std::string *value) {
    auto it = arguments.find(key);
    if (it == arguments.end()) return false;
    *value = it->second;
    return true;
}

int VeskSettingsManager2::setting_scribe2vesk(const wire::VeskSetting &from, vesk_settings_t &to) {
    memset(&to, 0, sizeof(to));
    to.magic = VESK_SETTINGS_MAGIC;
    to.type = static_cast<uint16_t>(from.type);
    to.flags = flags_str2bin(from.flags);
    int64_t value = from.value;
    to.ttl = static_cast<uint32_t>(from.ttl);
    snprintf(to.layer, sizeof(to.layer), "%s", from.layer.c_str());
    to.bucket_capacity[0] = argumentDouble(from.arguments, "BucketCapacity");
    to.bucket_rate[0] = argumentDouble(from.arguments, "BucketRate");
    to.bucket_capacity[1] = argumentDouble(from.arguments, "TriggerRelaxedBucketCapacity");
    to.bucket_rate[1] = argumentDouble(from.arguments, "TriggerRelaxedBucketRate");
    to.bucket_capacity[2] = argumentDouble(from.arguments, "TriggerStrictBucketCapacity");
    to.bucket_rate[2] = argumentDouble(from.arguments, "TriggerStrictBucketRate");
    std::string key;
    if (getSettingArgumentValue(from.arguments, "SignatureKey", &key))
        memcpy(to.signature_key, key.data(), key.size() < 255 ? key.size() : 255);

    if (value > VESK_SETTINGS_MAX_SAMPLE_RATE) {
        SETTINGS_USAGE(VESK_DEBUG_WARNING, "Invalid sample rate received: %d. Using value %d instead.",
                       static_cast<int>(value), VESK_SETTINGS_MAX_SAMPLE_RATE);
        value = VESK_SETTINGS_MAX_SAMPLE_RATE;
    } else if (value < 0) {
        SETTINGS_USAGE(VESK_DEBUG_WARNING, "Invalid sample rate received: %d. Using value %d instead.",
                       static_cast<int>(value), 0);
        value = 0;
    }
    to.value = static_cast<uint32_t>(value);
    fixNegative(to.bucket_capacity[0], "Invalid bucket capacity received: %d. Using value %d instead.");
    fixNegative(to.bucket_rate[0], "Invalid bucket rate received: %d. Using value %d instead.");
    fixNegative(to.bucket_capacity[1], "Invalid relaxed bucket capacity received: %d. Using value %d instead.");
    fixNegative(to.bucket_rate[1], "Invalid relaxed bucket rate received: %d. Using value %d instead.");
    fixNegative(to.bucket_capacity[2], "Invalid strict bucket capacity received: %d. Using value %d instead.");
    fixNegative(to.bucket_rate[2], "Invalid strict bucket rate received: %d. Using value %d instead.");
    return 0;
}

int VeskSettingsManager2::getCurrentSettings(std::vector<vesk_settings_t> &out) const {
    if (!is_open) return -1;
    uint32_t magic;
    uint16_t version;
    uint8_t flags, num;
    if (_vesk_settings_read_lock() != 0) return -1;
    vesk_settings_t *records = vesk_settings_inspect(&magic, &version, &flags, &num);
    if (records == nullptr) {
        _vesk_settings_read_unlock();
        printf("toVeskSettings() error: vesk_settings_inspect returned NULL\n");
        return -1;
    }
    for (int i = 0; i < VESK_SETTINGS_MAX_RECORDS; i++) {
        const vesk_settings_t &r = records[i];
        if (r.magic == VESK_SETTINGS_MAGIC && !(r.flags & VESK_SETTINGS_FLAG_INVALID) && r.type > 1) out.push_back(r);
    }
    _vesk_settings_read_unlock();
    return 0;
}

void VeskSettingsManager2::update(const std::vector<wire::VeskSetting> &settings,
                                  std::map<std::string, std::string> &arguments) {
    if (!is_open) {
        SETTINGS_USAGE(VESK_DEBUG_WARNING, "VeskSettingsManager2 not open, ignoring updates");
        return;
    }
    SETTINGS_LOG(VESK_DEBUG_LOW, "Got %d remote settings from the collector to update", static_cast<int>(settings.size()));
    if (settings.empty()) {
        SETTINGS_USAGE(VESK_DEBUG_WARNING, "VeskSettingsManager2: ignoring empty settings array");
        return;
    }
    std::vector<vesk_settings_t> current;
    int rc = getCurrentSettings(current);
    if (rc < 0) {
        SETTINGS_LOG(VESK_DEBUG_LOW, "VeskSettings update: get current settings returned %d, skipping update", rc);
        return;
    }
    std::map<MergeKey, vesk_settings_t> old, fresh;
    SETTINGS_LOG(VESK_DEBUG_HIGH, "VeskSettings update: local settings:");
    for (const vesk_settings_t &s : current) {
        if (!old.emplace(keyOf(s), s).second)
            SETTINGS_LOG(VESK_DEBUG_LOW,
                         "VeskSettings update: found current multiple settings of type %04x layer %s, ignoring duplicates",
                         s.type, s.layer);
        else
            logRecord(s);
    }
    uint32_t now = static_cast<uint32_t>(time(nullptr));
    SETTINGS_LOG(VESK_DEBUG_HIGH, "VeskSettings update: new settings:");
    for (const wire::VeskSetting &w : settings) {
        vesk_settings_t s;
        setting_scribe2vesk(w, s);
        s.timestamp = now;
        if (arguments.empty()) arguments.insert(w.arguments.begin(), w.arguments.end());
        if (!fresh.emplace(keyOf(s), s).second)
            SETTINGS_LOG(VESK_DEBUG_LOW,
                         "VeskSettings update: received multiple settings of type %04x layer %s, ignoring duplicates",
                         s.type, s.layer);
        else
            logRecord(s);
    }
    SETTINGS_LOG(VESK_DEBUG_HIGH, "VeskSettings update: deleted settings:");
    for (const auto &o : old) {
        if (fresh.count(o.first)) continue;
        logRecord(o.second);
        int r = vesk_settings_delete(o.second.type, o.second.layer);
        if (r != 0)
            SETTINGS_USAGE(VESK_DEBUG_ERROR, "Error deleting setting %u %s, returned %d", o.second.type, o.second.layer, r);
    }
    SETTINGS_LOG(VESK_DEBUG_HIGH, "VeskSettings update: updated settings:");
    for (const auto &n : fresh) {
        auto o = old.find(n.first);
        if (o == old.end()) continue;
        const vesk_settings_t &a = o->second, &b = n.second;
        if (a.flags == b.flags && a.value == b.value && a.timestamp == b.timestamp && a.ttl == b.ttl) continue;
        logRecord(b);
        int r = vesk_settings_update(b.layer, b.type, b.value, b.flags, b.timestamp, b.ttl, b.bucket_capacity,
                                     b.bucket_rate, b.signature_key);
        if (r != 0) SETTINGS_USAGE(VESK_DEBUG_ERROR, "Error updating setting %u %s, returned %d", b.type, b.layer, r);
    }
    SETTINGS_LOG(VESK_DEBUG_HIGH, "VeskSettings update: added settings:");
    std::vector<const vesk_settings_t *> added;
    for (const auto &n : fresh)
        if (!old.count(n.first)) added.push_back(&n.second);
    for (size_t i = 0; i < added.size(); i++) {
        const vesk_settings_t &b = *added[i];
        logRecord(b);
        int r = vesk_settings_add(b.layer, b.type, b.value, b.flags, b.timestamp, b.ttl, b.bucket_capacity,
                                  b.bucket_rate, b.signature_key, i + 1 == added.size());
        if (r != 0)
            SETTINGS_USAGE(VESK_DEBUG_ERROR, "Error adding setting %u %s %s, returned %d", b.type, b.layer,
                           b.signature_key, r);
    }
}

void VeskSettingsManager2::deleteTimedOut(int64_t now) {
    std::vector<vesk_settings_t> current;
    int rc = getCurrentSettings(current);
    if (rc < 0) {
        SETTINGS_LOG(VESK_DEBUG_LOW, "VeskSettings deleteTimedOut: get current settings returned %d, skipping deletion",
                     rc);
        return;
    }
    for (const vesk_settings_t &s : current) {
        if (now < static_cast<int64_t>(s.timestamp) + static_cast<int64_t>(s.ttl)) continue;
        SETTINGS_LOG(VESK_DEBUG_LOW, "VeskSettings deleteTimedOut: deleting layer %s", s.layer);
        int r = vesk_settings_delete(s.type, s.layer);
        if (r != 0) SETTINGS_USAGE(VESK_DEBUG_ERROR, "Error deleting setting %u %s, returned %d", s.type, s.layer, r);
    }
}

}  // namespace corvidine
