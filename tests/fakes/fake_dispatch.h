// Deterministic dispatch: queues that run only when the test drains them, and a sleeper that
// returns at once (unless cancelled) instead of sleeping.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch.h"

namespace gb::fakes {

// Safe to submit from any thread.
class ManualQueue final : public SerialQueue {
public:
    explicit ManualQueue(std::string label) : label_(std::move(label)) {}
    void async(std::function<void()> work) override {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(work));
    }
    [[nodiscard]] std::string label() const override { return label_; }
    [[nodiscard]] bool isCurrent() const override { return current() == this; }
    // Runs closures, including ones submitted meanwhile, until none is left; how many ran.
    int runPending() {
        int n = 0;
        for (std::function<void()> work; take(work); ++n) {
            const ManualQueue* previous = std::exchange(current(), this);
            work();
            current() = previous;
        }
        return n;
    }

private:
    bool take(std::function<void()>& work) {
        std::lock_guard lock(mutex_);
        if (pending_.empty()) return false;
        work = std::move(pending_.front());
        pending_.pop_front();
        return true;
    }
    static const ManualQueue*& current() {
        thread_local const ManualQueue* q = nullptr;
        return q;
    }
    const std::string label_;
    std::mutex mutex_;
    std::deque<std::function<void()>> pending_;  // guarded by mutex_
};

class FakeSleeper final : public Sleeper {
public:
    // Runs during each sleep, as something the user does while the sleeper waits.
    std::function<void()> onSleep;
    bool sleep(std::chrono::nanoseconds, const CancellationToken& token) override {
        if (onSleep) onSleep();
        return !token.isCancelled();
    }
};

// Main queue, background executor and every serial queue made here are ManualQueues.
class FakeDispatch final : public Dispatch {
public:
    SerialQueue& mainQueue() override { return main; }
    Executor& backgroundExecutor() override { return background; }
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                 QualityOfService) override {
        std::lock_guard lock(mutex_);
        return queues_.emplace_back(std::make_shared<ManualQueue>(label));
    }
    Sleeper& sleeper() override { return fakeSleeper; }
    // Drains every queue until all are empty.
    void runAll() {
        for (int ran = 1; ran != 0;) {
            ran = background.runPending() + main.runPending();
            std::unique_lock lock(mutex_);
            const auto queues = queues_;
            lock.unlock();
            for (auto& q : queues) ran += q->runPending();
        }
    }

    ManualQueue main{"main"};
    ManualQueue background{"background"};
    FakeSleeper fakeSleeper;

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<ManualQueue>> queues_;  // guarded by mutex_
};

}  // namespace gb::fakes
