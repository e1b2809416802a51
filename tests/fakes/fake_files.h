// In-memory files and folders, a defaults store that can hold values of the wrong type, a date
// formatter with a fixed date, and a folder picker with a preset answer. All thread-safe.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "fakes/locked.h"
#include "platform/files.h"
#include "platform/user_interface.h"

namespace gb::fakes {

inline std::string parentPath(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return path.substr(0, slash);
}

class FakeFileSystem final : public FileSystem {
public:
    FakeFileSystem() {
        directories_.insert("/");
        directories_.insert("/home");
        directories_.insert("/home/user");
        directories_.insert("/home/user/Documents");
    }

    // ---- FileSystem
    [[nodiscard]] std::optional<std::string> documentsDirectory() const override {
        std::lock_guard lock(mutex_);
        return documents_;
    }
    [[nodiscard]] Result<void> createDirectory(const std::string& path,
                                               bool intermediates) override {
        std::lock_guard lock(mutex_);
        createCalls_.push_back({path, intermediates});
        if (createError_) return *createError_;
        if (files_.count(path)) return PlatformError{"NSCocoaErrorDomain", 516, "A file exists."};
        if (!intermediates && !directories_.count(parentPath(path))) {
            return PlatformError{"NSCocoaErrorDomain", 4, "No such folder."};
        }
        for (std::string p = path; p != "/"; p = parentPath(p)) directories_.insert(p);
        return {};
    }
    [[nodiscard]] bool fileExists(const std::string& path) const override {
        std::lock_guard lock(mutex_);
        return files_.count(path) > 0 || directories_.count(path) > 0;
    }
    [[nodiscard]] Result<void> removeItem(const std::string& path) override {
        std::lock_guard lock(mutex_);
        removeCalls_.push_back(path);
        if (removeError_) return *removeError_;
        if (files_.erase(path) == 0) {
            return PlatformError{"NSCocoaErrorDomain", 4, "No such file."};
        }
        return {};
    }

    // ---- set-up
    void setDocumentsDirectory(std::optional<std::string> path) {
        lockedSet(mutex_, documents_, std::move(path));
    }
    // Every later createDirectory fails with this error; nullopt lets them succeed again.
    void setCreateDirectoryError(std::optional<PlatformError> error) {
        lockedSet(mutex_, createError_, std::move(error));
    }
    void setRemoveError(std::optional<PlatformError> error) {
        lockedSet(mutex_, removeError_, std::move(error));
    }
    // Writes a file; `contents` tells files apart (e.g. which recording wrote it).
    void writeFile(const std::string& path, std::string contents = {}) {
        std::lock_guard lock(mutex_);
        files_[path] = std::move(contents);
    }

    // ---- inspection
    [[nodiscard]] bool directoryExists(const std::string& path) const {
        std::lock_guard lock(mutex_);
        return directories_.count(path) > 0;
    }
    [[nodiscard]] std::optional<std::string> fileContents(const std::string& path) const {
        std::lock_guard lock(mutex_);
        const auto it = files_.find(path);
        if (it == files_.end()) return std::nullopt;
        return it->second;
    }
    struct CreateCall {
        std::string path;
        bool intermediates = false;
    };
    [[nodiscard]] std::vector<CreateCall> createDirectoryCalls() const {
        return lockedCopy(mutex_, createCalls_);
    }
    [[nodiscard]] std::vector<std::string> removeCalls() const {
        return lockedCopy(mutex_, removeCalls_);
    }

private:
    mutable std::mutex mutex_;
    std::optional<std::string> documents_ = "/home/user/Documents";  // guarded by mutex_
    std::set<std::string> directories_;                              // guarded by mutex_
    std::map<std::string, std::string> files_;                       // guarded by mutex_
    std::optional<PlatformError> createError_;                       // guarded by mutex_
    std::optional<PlatformError> removeError_;                       // guarded by mutex_
    std::vector<CreateCall> createCalls_;                            // guarded by mutex_
    std::vector<std::string> removeCalls_;                           // guarded by mutex_
};

// A value stored under a key with another type reads as absent, as with the real store.
class FakeDefaultsStore final : public DefaultsStore {
public:
    struct Url {
        std::string path;
    };
    using Value = std::variant<bool, Url, std::string, int64_t, double>;

    [[nodiscard]] std::optional<bool> boolForKey(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        if (it == values_.end() || !std::holds_alternative<bool>(it->second)) return std::nullopt;
        return std::get<bool>(it->second);
    }
    void setBool(bool value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }
    [[nodiscard]] std::optional<std::string> urlForKey(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        if (it == values_.end() || !std::holds_alternative<Url>(it->second)) return std::nullopt;
        return std::get<Url>(it->second).path;
    }
    void setURL(const std::string& path, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = Url{path};
    }
    [[nodiscard]] std::optional<std::string> stringForKey(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        if (it == values_.end() || !std::holds_alternative<std::string>(it->second)) return {};
        return std::get<std::string>(it->second);
    }
    void setString(const std::string& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }

    // Stores any value, also one of a type the key does not expect.
    void setRaw(const std::string& key, Value value) {
        std::lock_guard lock(mutex_);
        values_[key] = std::move(value);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, Value> values_;  // guarded by mutex_
};

// now() is a fixed date; format() answers with a preset text and records what it was asked.
class FakeDateFormatter final : public DateFormatter {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override {
        std::lock_guard lock(mutex_);
        return now_;
    }
    [[nodiscard]] std::string format(const std::string& pattern,
                                     std::chrono::system_clock::time_point date) const override {
        std::lock_guard lock(mutex_);
        requests_.push_back({pattern, date});
        return formatted_;
    }

    void setFormatted(std::string text) { lockedSet(mutex_, formatted_, std::move(text)); }
    struct Request {
        std::string pattern;
        std::chrono::system_clock::time_point date;
    };
    [[nodiscard]] std::vector<Request> requests() const { return lockedCopy(mutex_, requests_); }

private:
    mutable std::mutex mutex_;
    std::chrono::system_clock::time_point now_{std::chrono::seconds(1741944413)};  // guarded
    std::string formatted_ = "2025-03-14_09-26-53";                                // guarded
    mutable std::vector<Request> requests_;                                        // guarded
};

class FakeFolderPicker final : public FolderPicker {
public:
    FolderPickerResult runModal(const FolderPickerOptions&) override {
        return lockedCopy(mutex_, result_);
    }
    void setResult(FolderPickerResult result) { lockedSet(mutex_, result_, std::move(result)); }

private:
    mutable std::mutex mutex_;
    FolderPickerResult result_{0, std::nullopt};  // guarded by mutex_
};

}  // namespace gb::fakes
