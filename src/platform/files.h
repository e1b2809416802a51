// Files, folders, the user defaults store and date formatting.
//
// Threads: FileSystem and DateFormatter may be used from any thread. The DefaultsStore is read
// and written from any thread; each call is atomic, and a value written is seen by later reads
// in this process and by the next launch.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/result.h"

namespace gb {

class FileSystem {
public:
    virtual ~FileSystem() = default;
    // The user's Documents folder, or nothing when there is none.
    [[nodiscard]] virtual std::optional<std::string> documentsDirectory() const = 0;
    // Creates the folder and, with `intermediates`, its parents; succeeds when it exists already.
    [[nodiscard]] virtual Result<void> createDirectory(const std::string& path,
                                                       bool intermediates) = 0;
    [[nodiscard]] virtual bool fileExists(const std::string& path) const = 0;
    [[nodiscard]] virtual Result<void> removeItem(const std::string& path) = 0;
};

// The persisted settings. A value stored under a key with another type reads as absent.
class DefaultsStore {
public:
    virtual ~DefaultsStore() = default;
    [[nodiscard]] virtual std::optional<bool> boolForKey(const std::string& key) const = 0;
    virtual void setBool(bool value, const std::string& key) = 0;
    // A folder or file URL, as an absolute path.
    [[nodiscard]] virtual std::optional<std::string> urlForKey(const std::string& key) const = 0;
    virtual void setURL(const std::string& path, const std::string& key) = 0;
    // Plain text (such as a screen-cast restore token).
    [[nodiscard]] virtual std::optional<std::string> stringForKey(const std::string& key) const = 0;
    virtual void setString(const std::string& value, const std::string& key) = 0;
};

// Formats dates with a pattern in the user's current locale and time zone
// ("yyyy-MM-dd_HH-mm-ss" style patterns), and tells the current date.
class DateFormatter {
public:
    virtual ~DateFormatter() = default;
    [[nodiscard]] virtual std::chrono::system_clock::time_point now() const = 0;
    [[nodiscard]] virtual std::string format(const std::string& pattern,
                                             std::chrono::system_clock::time_point date) const = 0;
};

}  // namespace gb
