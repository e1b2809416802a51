// Deterministic dispatch for unit tests: queues that run only when the test drains them, and a
// sleeper that records the requested durations and advances a fake clock instead of sleeping.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fakes/locked.h"
#include "platform/dispatch.h"

namespace gb::fakes {

// A serial queue that runs its closures only when drained. Safe to submit from any thread.
class ManualQueue final : public SerialQueue {
public:
    explicit ManualQueue(std::string label) : label_(std::move(label)) {}

    void async(std::function<void()> work) override {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(work));
    }
    [[nodiscard]] std::string label() const override { return label_; }
    [[nodiscard]] bool isCurrent() const override { return current() == this; }

    // Runs one closure; false when there was none.
    bool runOne() {
        std::function<void()> work;
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty()) return false;
            work = std::move(pending_.front());
            pending_.pop_front();
        }
        const ManualQueue* previous = current();
        current() = this;
        work();
        current() = previous;
        return true;
    }
    // Runs closures, including ones submitted meanwhile, until none is left. Returns how many ran.
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

// Records every sleep and advances `now` by its duration; a cancelled token ends it at once.
class FakeSleeper final : public Sleeper {
public:
    bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) override {
        std::function<void()> hook;
        {
            std::lock_guard lock(mutex_);
            sleeps_.push_back(duration);
            hook = onSleep_;
        }
        if (hook) hook();  // lets a test act "during" the pause
        if (token.isCancelled()) return false;
        std::lock_guard lock(mutex_);
        now_ += duration;
        return true;
    }
    void setOnSleep(std::function<void()> hook) { lockedSet(mutex_, onSleep_, std::move(hook)); }
    [[nodiscard]] std::vector<std::chrono::nanoseconds> sleeps() const {
        return lockedCopy(mutex_, sleeps_);
    }
    // Fake time: the sum of all completed sleeps.
    [[nodiscard]] std::chrono::nanoseconds now() const { return lockedCopy(mutex_, now_); }

private:
    mutable std::mutex mutex_;
    std::vector<std::chrono::nanoseconds> sleeps_;  // guarded by mutex_
    std::chrono::nanoseconds now_{0};               // guarded by mutex_
    std::function<void()> onSleep_;                 // guarded by mutex_
};

// Main queue, background executor and every serial queue made here are ManualQueues.
class FakeDispatch final : public Dispatch {
public:
    SerialQueue& mainQueue() override { return main; }
    Executor& backgroundExecutor() override { return background; }
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                 QualityOfService qos) override {
        auto q = std::make_shared<ManualQueue>(label);
        std::lock_guard lock(mutex_);
        queues_.push_back(q);
        qualities_.push_back(qos);
        return q;
    }
    Sleeper& sleeper() override { return sleeperImpl; }

    // The serial queues made so far, in creation order.
    [[nodiscard]] std::vector<std::shared_ptr<ManualQueue>> serialQueues() const {
        return lockedCopy(mutex_, queues_);
    }
    [[nodiscard]] std::vector<QualityOfService> serialQueueQualities() const {
        return lockedCopy(mutex_, qualities_);
    }
    // Drains every queue until all are empty.
    void runAll() {
        for (;;) {
            int ran = background.runPending();
            for (auto& q : serialQueues()) ran += q->runPending();
            ran += main.runPending();
            if (ran == 0) return;
        }
    }

    ManualQueue main{"main"};
    ManualQueue background{"background"};
    FakeSleeper sleeperImpl;

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<ManualQueue>> queues_;  // guarded by mutex_
    std::vector<QualityOfService> qualities_;           // guarded by mutex_
};

}  // namespace gb::fakes
