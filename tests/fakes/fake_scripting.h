// Fakes of the application finder and the script runner: editors that "run" because a test
// launched them, and a runner that records every script and answers as the test tells it.
// All of them may be used from any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "fakes/locked.h"
#include "platform/scripting.h"

namespace gb::fakes {

class FakeRunningApplication final : public RunningApplication {
public:
    explicit FakeRunningApplication(std::string bundleIdentifier)
        : bundleIdentifier_(std::move(bundleIdentifier)) {}

    [[nodiscard]] std::string bundleIdentifier() const override { return bundleIdentifier_; }
    bool activate() override {
        std::function<void()> hook;
        {
            std::lock_guard lock(mutex_);
            ++activations_;
            hook = onActivate_;
        }
        if (hook) hook();
        return true;
    }

    // Runs on every activation (after it was counted).
    void setOnActivate(std::function<void()> hook) {
        lockedSet(mutex_, onActivate_, std::move(hook));
    }
    [[nodiscard]] int activations() const { return lockedCopy(mutex_, activations_); }

private:
    const std::string bundleIdentifier_;
    mutable std::mutex mutex_;
    int activations_ = 0;               // guarded by mutex_
    std::function<void()> onActivate_;  // guarded by mutex_
};

class FakeApplicationFinder final : public ApplicationFinder {
public:
    std::vector<RunningApplicationRef> runningApplications(
        const std::string& bundleIdentifier) override {
        std::lock_guard lock(mutex_);
        queries_.push_back(bundleIdentifier);
        auto found = running_.find(bundleIdentifier);
        if (found == running_.end()) return {};
        return {found->second.begin(), found->second.end()};
    }

    // Starts one more application with the identifier, after those already running.
    std::shared_ptr<FakeRunningApplication> launch(const std::string& bundleIdentifier) {
        auto app = std::make_shared<FakeRunningApplication>(bundleIdentifier);
        std::lock_guard lock(mutex_);
        running_[bundleIdentifier].push_back(app);
        return app;
    }
    // Ends every application with the identifier.
    void quit(const std::string& bundleIdentifier) {
        std::lock_guard lock(mutex_);
        running_.erase(bundleIdentifier);
    }
    // The identifiers asked for, in order.
    [[nodiscard]] std::vector<std::string> queries() const { return lockedCopy(mutex_, queries_); }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<std::shared_ptr<FakeRunningApplication>>>
        running_;                       // guarded by mutex_
    std::vector<std::string> queries_;  // guarded by mutex_
};

// Records every script; succeeds unless the responder says otherwise.
class RecordingScriptRunner final : public ScriptRunner {
public:
    using Responder = std::function<ScriptOutcome(const std::string& source)>;

    ScriptOutcome run(const std::string& source) override {
        Responder responder;
        {
            std::lock_guard lock(mutex_);
            scripts_.push_back(source);
            responder = responder_;
        }
        return responder ? responder(source) : ScriptOutcome{};
    }

    // Decides the outcome of every later run (it may also throw, like a broken runner).
    void setResponder(Responder responder) { lockedSet(mutex_, responder_, std::move(responder)); }
    [[nodiscard]] std::vector<std::string> scripts() const { return lockedCopy(mutex_, scripts_); }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> scripts_;  // guarded by mutex_
    Responder responder_;               // guarded by mutex_
};

}  // namespace gb::fakes
