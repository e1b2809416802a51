// Captures the lines written through logLine for the life of the object.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "recording/log.h"

namespace gb::fakes {

class CapturedLog {
public:
    CapturedLog()
        : previous_(setLogSink([state = state_](std::string_view line) {
              std::lock_guard lock(state->mutex);
              state->lines.emplace_back(line);
          })) {}
    ~CapturedLog() { setLogSink(std::move(previous_)); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    [[nodiscard]] std::vector<std::string> lines() const {
        std::lock_guard lock(state_->mutex);
        return state_->lines;
    }
    [[nodiscard]] bool contains(const std::string& line) const {
        const auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    void clear() {
        std::lock_guard lock(state_->mutex);
        state_->lines.clear();
    }

private:
    struct State {
        std::mutex mutex;
        std::vector<std::string> lines;  // guarded by mutex
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
    LogSink previous_;
};

}  // namespace gb::fakes
