// What platform tests set up around themselves: a private temporary folder and environment
// variables that are put back afterwards.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace gb::fakes {

// A folder removed with everything in it (also what was made read-only).
class TempDirectory {
public:
    TempDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "glimmerbox.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets and unsets variables of this process; the destructor restores the earlier values.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment() {
        for (const auto& [name, value] : saved_)
            value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    void set(const std::string& name, const std::string& value) {
        save(name);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    void unset(const std::string& name) {
        save(name);
        ::unsetenv(name.c_str());
    }

private:
    void save(const std::string& name) {
        const char* value = std::getenv(name.c_str());
        if (!saved_.count(name)) saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
    }
    std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace gb::fakes
