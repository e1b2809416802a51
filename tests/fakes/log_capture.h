// Recording what happened, in order: LogCapture collects the diagnostic lines while it lives;
// CallLog collects the calls that fakes report to it. Both are thread-safe.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
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
            {
                std::lock_guard lock(mutex_);
                lines_.emplace_back(line);
            }
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
    // How many lines are `line` exactly.
    [[nodiscard]] size_t count(const std::string& line) const {
        return countIf([&](const std::string& l) { return l == line; });
    }
    [[nodiscard]] bool contains(const std::string& line) const { return count(line) > 0; }
    [[nodiscard]] size_t countPrefix(const std::string& prefix) const {
        return countIf([&](const std::string& l) { return l.starts_with(prefix); });
    }
    // How many lines contain `text` anywhere.
    [[nodiscard]] size_t countContaining(const std::string& text) const {
        return countIf([&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
    // The lines that start with one of the prefixes, in order.
    [[nodiscard]] std::vector<std::string> linesStartingWith(
        const std::vector<std::string>& prefixes) const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& l : lines_) {
            if (std::any_of(prefixes.begin(), prefixes.end(),
                            [&](const std::string& p) { return l.starts_with(p); })) {
                out.push_back(l);
            }
        }
        return out;
    }
    // Blocks until `line` has been logged `times` times in all, or the timeout passed.
    bool waitFor(const std::string& line, size_t times, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line)) >= times;
        });
    }
    // Blocks until a line containing `text` was logged, or the timeout passed.
    bool waitForContaining(const std::string& text,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::any_of(lines_.begin(), lines_.end(), [&](const std::string& l) {
                return l.find(text) != std::string::npos;
            });
        });
    }

private:
    size_t countIf(const std::function<bool(const std::string&)>& match) const {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), match));
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;  // guarded by mutex_
    LogSink previous_;
};

// The calls that fakes were given, in the order they arrived.
class CallLog {
public:
    void add(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    [[nodiscard]] std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        calls_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;  // guarded by mutex_
};

}  // namespace gb::fakes
