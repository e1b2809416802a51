// Deterministic dispatch: queues that run only when the test drains them, and a sleeper that
// records the requested pauses and advances a fake clock instead of sleeping.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
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
    bool runOne() {
        std::function<void()> work;
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty()) return false;
            work = std::move(pending_.front());
            pending_.pop_front();
        }
        const ManualQueue* previous = std::exchange(current(), this);
        work();
        current() = previous;
        return true;
    }
    // Runs closures, including ones submitted meanwhile, until none is left; how many ran.
    int runPending() {
        int n = 0;
        while (runOne()) ++n;
        return n;
    }
    [[nodiscard]] size_t pendingCount() const {
        std::lock_guard lock(mutex_);
        return pending_.size();
    }

private:
    static const ManualQueue*& current() {
        thread_local const ManualQueue* q = nullptr;
        return q;
    }
    const std::string label_;
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> pending_;  // guarded by mutex_
};

class FakeSleeper final : public Sleeper {
public:
    bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) override {
        if (token.isCancelled()) return false;
        std::lock_guard lock(mutex_);
        sleeps_.push_back(duration);
        now_ += duration;
        return true;
    }
    [[nodiscard]] std::vector<std::chrono::nanoseconds> sleeps() const {
        std::lock_guard lock(mutex_);
        return sleeps_;
    }
    // The sum of all completed sleeps.
    [[nodiscard]] std::chrono::nanoseconds now() const {
        std::lock_guard lock(mutex_);
        return now_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::chrono::nanoseconds> sleeps_;  // guarded by mutex_
    std::chrono::nanoseconds now_{0};               // guarded by mutex_
};

// Main queue, background executor and every serial queue made here are ManualQueues.
class FakeDispatch final : public Dispatch {
public:
    SerialQueue& mainQueue() override { return main; }
    Executor& backgroundExecutor() override { return background; }
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                 QualityOfService) override {
        auto q = std::make_shared<ManualQueue>(label);
        std::lock_guard lock(mutex_);
        queues_.push_back(q);
        return q;
    }
    Sleeper& sleeper() override { return sleeperImpl; }
    [[nodiscard]] std::vector<std::shared_ptr<ManualQueue>> serialQueues() const {
        std::lock_guard lock(mutex_);
        return queues_;
    }
    // Drains every queue until all are empty.
    void runAll() {
        for (int ran = 1; ran != 0;) {
            ran = background.runPending() + main.runPending();
            for (auto& q : serialQueues()) ran += q->runPending();
        }
    }

    ManualQueue main{"main"};
    ManualQueue background{"background"};
    FakeSleeper sleeperImpl;

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<ManualQueue>> queues_;  // guarded by mutex_
};

}  // namespace gb::fakes
