// User defaults: one property-list dictionary per program in the user's Preferences folder
// (~/Library/Preferences/{domain}.plist). Values are read from memory once loaded; changes
// are kept in memory until synchronize(), which merges them into the file as it is on disk
// (another process may have written other keys meanwhile) and replaces it atomically.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Value.h"

namespace corvina {

class UserDefaults {
public:
    // The defaults of this program: the domain is the executable's name.
    static UserDefaults& standard();

    // A domain's defaults in the given folder (the user's Preferences folder when none).
    explicit UserDefaults(std::string domain, std::optional<std::string> folder = std::nullopt);
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    std::string path() const;

    // A none value when the key is missing.
    Value objectForKey(std::string_view key);
    // Setting a none value removes the key.
    void setObject(std::string_view key, Value value);
    void removeObject(std::string_view key) { setObject(key, Value()); }
    bool boolForKey(std::string_view key) { return objectForKey(key).boolValue(); }

    // Dotted key paths reach into dictionaries: "a.b" is key "b" of the dictionary under "a".
    Value valueForKeyPath(std::string_view keyPath);
    void setValueForKeyPath(std::string_view keyPath, Value value);

    // Writes the changes out; false when the file could not be written.
    bool synchronize();

private:
    void loadLocked();

    std::string domain_;
    std::string folder_;
    std::mutex mutex_;
    bool loaded_ = false;
    Value::DictionaryType values_;
    std::set<std::string, std::less<>> changed_;
};

}  // namespace corvina
