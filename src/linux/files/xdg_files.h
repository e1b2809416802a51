// Files, settings and dates on a Linux desktop: the XDG user folders, the settings file that the
// tray application shares, and date patterns in local time.
//
// Threads: every class here may be used from any thread (see files.h).
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "platform/files.h"

namespace gb::linuxp {

// Errors from the file system carry this domain, the errno value and its text ("Permission
// denied", "No space left on device", "Not a directory", ...).
inline constexpr const char* kPosixErrorDomain = "POSIX";
[[nodiscard]] PlatformError posixError(int errorNumber);

class XdgFileSystem final : public FileSystem {
public:
    // XDG_DOCUMENTS_DIR from the environment, else from user-dirs.dirs in the configuration
    // folder ($XDG_CONFIG_HOME, else ~/.config), else ~/Documents. Nothing without a home.
    [[nodiscard]] std::optional<std::string> documentsDirectory() const override;
    // Folders created here are private to the user (0700): recordings show whatever was on
    // screen.
    [[nodiscard]] Result<void> createDirectory(const std::string& path,
                                               bool intermediates) override;
    // Anything at the path, also a link that leads nowhere.
    [[nodiscard]] bool fileExists(const std::string& path) const override;
    // Removes a file or a link (never what it leads to); fails when there is nothing, and
    // leaves alone (failing with EISDIR or EBUSY) a folder or anything else that is not a file,
    // and a file another recording is writing (it holds a flock on it).
    [[nodiscard]] Result<void> removeItem(const std::string& path) override;
};

// The settings, in the INI file $XDG_CONFIG_HOME/Glimmerbox/Glimmerbox.conf (~/.config without
// XDG_CONFIG_HOME), read anew at every call so that the tray application's changes show.
// Booleans are written as true/false; URLs as file:// URL strings, and read back from such
// strings or from plain absolute paths. A value of another form reads as absent. A file that
// cannot be read reads as empty; writing over a damaged file first keeps it aside as
// "<file>.broken". Failures are logged, never thrown.
class QSettingsDefaultsStore final : public DefaultsStore {
public:
    // The shared settings file; without a home folder nothing can be stored.
    QSettingsDefaultsStore();
    explicit QSettingsDefaultsStore(std::string filePath);

    // Where the settings live for the current environment, or nothing without a home.
    [[nodiscard]] static std::optional<std::string> defaultFilePath();
    [[nodiscard]] const std::string& filePath() const { return filePath_; }

    [[nodiscard]] std::optional<bool> boolForKey(const std::string& key) const override;
    void setBool(bool value, const std::string& key) override;
    [[nodiscard]] std::optional<std::string> urlForKey(const std::string& key) const override;
    // `path` must be absolute.
    void setURL(const std::string& path, const std::string& key) override;
    [[nodiscard]] std::optional<std::string> stringForKey(const std::string& key) const override;
    void setString(const std::string& value, const std::string& key) override;

private:
    const std::string filePath_;               // empty when there is nowhere to store
    mutable std::mutex mutex_;                 // serializes every use of the file
    mutable bool reportedUnreadable_ = false;  // guarded by mutex_
};

// Formats with Unicode date patterns in the local time zone: y (yy: two digits), M (MMM, MMMM:
// English month names), d, H, h, m, s, S (fractions of a second), a (AM/PM), E (weekday names);
// a run of a letter sets the minimum width. Text in single quotes is literal, '' is a quote, and
// everything that is not a letter is copied.
class LocaleDateFormatter final : public DateFormatter {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::now();
    }
    [[nodiscard]] std::string format(const std::string& pattern,
                                     std::chrono::system_clock::time_point date) const override;
};

}  // namespace gb::linuxp
