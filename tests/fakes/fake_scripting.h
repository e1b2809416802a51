// Editors that "run" because a test launched them, and a script runner that records every script
// and answers as the test tells it. Any thread.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/scripting.h"

namespace gb::fakes {

class FakeRunningApplication final : public RunningApplication {
public:
    explicit FakeRunningApplication(std::string id, std::function<void()> onActivate = {})
        : id_(std::move(id)), onActivate_(std::move(onActivate)) {}
    [[nodiscard]] std::string bundleIdentifier() const override { return id_; }
    bool activate() override {
        ++activations;
        if (onActivate_) onActivate_();
        return true;
    }
    std::atomic<int> activations{0};

private:
    const std::string id_;
    const std::function<void()> onActivate_;
};

class FakeApplicationFinder final : public ApplicationFinder {
public:
    std::vector<RunningApplicationRef> runningApplications(const std::string& id) override {
        std::lock_guard lock(mutex_);
        queries.push_back(id);
        return {running_[id].begin(), running_[id].end()};
    }
    std::shared_ptr<FakeRunningApplication> launch(const std::string& id,
                                                   std::function<void()> onActivate = {}) {
        std::lock_guard lock(mutex_);
        return running_[id].emplace_back(std::make_shared<FakeRunningApplication>(id, std::move(onActivate)));
    }
    void quit(const std::string& id) {
        std::lock_guard lock(mutex_);
        running_.erase(id);
    }
    std::vector<std::string> queries;  // in order

private:
    std::mutex mutex_;
    std::map<std::string, std::vector<std::shared_ptr<FakeRunningApplication>>> running_;
};

// Records every script; each succeeds unless `responder` (set before use) says otherwise.
class RecordingScriptRunner final : public ScriptRunner {
public:
    ScriptOutcome run(const std::string& source) override {
        {
            std::lock_guard lock(mutex_);
            scripts_.push_back(source);
        }
        return responder ? responder(source) : ScriptOutcome{};
    }
    [[nodiscard]] std::vector<std::string> scripts() const {
        std::lock_guard lock(mutex_);
        return scripts_;
    }
    std::function<ScriptOutcome(const std::string&)> responder;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> scripts_;  // guarded by mutex_
};

}  // namespace gb::fakes
