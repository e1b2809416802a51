// LogCapture collects the diagnostic lines while it lives. Thread-safe.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "recording/log.h"

namespace gb::fakes {

// Installs a log sink for its lifetime and restores the previous one afterwards.
class LogCapture {
public:
    LogCapture() {
        previous_ = setLogSink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
            changed_.notify_all();
        });
    }
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    [[nodiscard]] std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }
    [[nodiscard]] size_t count(const std::string& line) const {
        const auto all = lines();
        return static_cast<size_t>(std::count(all.begin(), all.end(), line));
    }
    [[nodiscard]] bool contains(const std::string& line) const { return count(line) > 0; }
    [[nodiscard]] size_t countPrefix(const std::string& prefix) const {
        const auto all = lines();
        return static_cast<size_t>(
            std::count_if(all.begin(), all.end(), [&](auto& l) { return l.starts_with(prefix); }));
    }
    // Blocks until a line containing `text` was logged, or the timeout passed.
    bool waitForContaining(const std::string& text,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::any_of(lines_.begin(), lines_.end(),
                               [&](auto& l) { return l.find(text) != std::string::npos; });
        });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;  // guarded by mutex_
    LogSink previous_;
};

}  // namespace gb::fakes
