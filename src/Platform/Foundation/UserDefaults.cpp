#include "UserDefaults.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "ProcessInfo.h"
#include "StringUtils.h"

namespace corvina {

namespace {

std::string preferencesFolder()
{
    std::string home;
    if (const char* h = std::getenv("HOME"); h && *h) {
        home = h;
    } else if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) {
        home = pw->pw_dir;
    }
    return appendPathComponent(home, "Library/Preferences");
}

Value::DictionaryType readDictionary(const std::string& path)
{
    const auto value = Value::fromPropertyListFile(path);
    if (value && value->asDictionary()) return *value->asDictionary();
    return {};
}

std::vector<std::string> splitKeyPath(std::string_view keyPath)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t dot = keyPath.find('.', start);
        parts.emplace_back(keyPath.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
        if (dot == std::string_view::npos) return parts;
        start = dot + 1;
    }
}

// The dictionary value with the key path's remaining components set to value.
Value withValueAt(const Value& base, const std::vector<std::string>& parts, size_t index, Value value)
{
    Value::DictionaryType dict = base.asDictionary() ? *base.asDictionary() : Value::DictionaryType();
    if (index + 1 == parts.size()) {
        if (value.isNone()) {
            dict.erase(parts[index]);
        } else {
            dict[parts[index]] = std::move(value);
        }
    } else {
        dict[parts[index]] = withValueAt(base[parts[index]], parts, index + 1, std::move(value));
    }
    return Value(std::move(dict));
}

}  // namespace

UserDefaults& UserDefaults::standard()
{
    static UserDefaults defaults(deletingPathExtension(processinfo::processName()));
    return defaults;
}

UserDefaults::UserDefaults(std::string domain, std::optional<std::string> folder)
    : domain_(std::move(domain)), folder_(folder ? std::move(*folder) : preferencesFolder())
{
}

std::string UserDefaults::path() const { return appendPathComponent(folder_, domain_ + ".plist"); }

void UserDefaults::loadLocked()
{
    if (loaded_) return;
    values_ = readDictionary(path());
    loaded_ = true;
}

Value UserDefaults::objectForKey(std::string_view key)
{
    std::lock_guard lock(mutex_);
    loadLocked();
    const auto it = values_.find(key);
    return it == values_.end() ? Value() : it->second;
}

void UserDefaults::setObject(std::string_view key, Value value)
{
    std::lock_guard lock(mutex_);
    loadLocked();
    if (value.isNone()) {
        if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
    } else {
        values_.insert_or_assign(std::string(key), std::move(value));
    }
    changed_.emplace(key);
}

Value UserDefaults::valueForKeyPath(std::string_view keyPath)
{
    const auto parts = splitKeyPath(keyPath);
    Value value = objectForKey(parts.front());
    for (size_t i = 1; i < parts.size() && !value.isNone(); ++i) value = Value(value[parts[i]]);
    return value;
}

void UserDefaults::setValueForKeyPath(std::string_view keyPath, Value value)
{
    const auto parts = splitKeyPath(keyPath);
    if (parts.size() == 1) return setObject(keyPath, std::move(value));
    const Value top = objectForKey(parts.front());
    setObject(parts.front(), withValueAt(top, parts, 1, std::move(value)));
}

bool UserDefaults::synchronize()
{
    std::lock_guard lock(mutex_);
    loadLocked();
    Value::DictionaryType onDisk = readDictionary(path());
    for (const auto& key : changed_) {
        const auto it = values_.find(key);
        if (it == values_.end()) {
            if (auto d = onDisk.find(key); d != onDisk.end()) onDisk.erase(d);
        } else {
            onDisk.insert_or_assign(key, it->second);
        }
    }
    std::error_code ec;
    std::filesystem::create_directories(folder_, ec);
    if (!Value(onDisk).writeToFile(path(), true)) return false;
    values_ = std::move(onDisk);
    changed_.clear();
    return true;
}

}  // namespace corvina
