// Settings from the Collector merged into the settings table: what the
// Collector no longer sends is deleted, what it sends anew is added, what
// stays is rewritten; records whose time to live has run out are dropped.
// Bad numbers are corrected (and logged) before anything is stored; an
// empty answer changes nothing.
//
// Threads: update and deleteTimedOut run on the metric sender thread;
// request threads read the table meanwhile under its own locks.
#ifndef CORVIDINE_COLLECTOR_SETTINGS_MANAGER_H
#define CORVIDINE_COLLECTOR_SETTINGS_MANAGER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "collector_types.h"
#include "corvidine/settings.h"

namespace corvidine {

// "OVERRIDE,SAMPLE_START,..." as record flag bits; unknown names are ignored.
uint8_t flags_str2bin(const std::string &flags);

class VeskSettingsManager2 {
public:
    VeskSettingsManager2();
    bool open();
    bool isOpen() const { return is_open; }
    // Merges `settings` into the table; `arguments` (when still empty) gets
    // the arguments of the first setting that has some.
    void update(const std::vector<::collector::thrift::VeskSetting> &settings,
                std::map<std::string, std::string> &arguments);
    // Deletes the records with now >= timestamp + ttl (seconds since the epoch).
    void deleteTimedOut(int64_t now);
    static bool getSettingArgumentValue(const std::map<std::string, std::string> &arguments, const std::string &key,
                                        std::string *value);
    static int setting_scribe2vesk(const ::collector::thrift::VeskSetting &from, vesk_settings_t &to);
    // Valid records of type 2 and above: 0, or -1 with no table.
    int getCurrentSettings(std::vector<vesk_settings_t> &out) const;

private:
    bool is_open = false;
};

}  // namespace corvidine

#endif
