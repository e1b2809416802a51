// Dispatch: the main queue (the event loop's thread), the shared background executor, labelled
// serial queues, task cancellation and a cancellable timed sleep.
//
// Threads: every operation here may be called from any thread. Closures submitted to a queue run
// one at a time in submission order on that queue's thread; the background executor runs its
// closures concurrently on a few threads. A queue owns the closures submitted to it until they
// have run; closures still pending when a queue is destroyed are dropped unrun.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace gb {

// Somewhere closures can be submitted to run later.
class Executor {
public:
    virtual ~Executor() = default;
    virtual void async(std::function<void()> work) = 0;
};

// A serial queue: closures run one at a time, in submission order.
class SerialQueue : public Executor {
public:
    [[nodiscard]] virtual std::string label() const = 0;
    // True when called from a closure that this queue is running.
    [[nodiscard]] virtual bool isCurrent() const = 0;
};

enum class QualityOfService { background, utility, userInitiated, userInteractive };

// Cancellation shared by a task's handle and the work it runs. Copies share one state.
// cancel() only marks the task as cancelled and wakes its sleeps; it never interrupts work.
class CancellationToken {
public:
    CancellationToken() : state_(std::make_shared<State>()) {}

    void cancel() const {
        {
            std::lock_guard lock(state_->mutex);
            state_->cancelled = true;
        }
        state_->changed.notify_all();
    }
    [[nodiscard]] bool isCancelled() const {
        std::lock_guard lock(state_->mutex);
        return state_->cancelled;
    }
    // Blocks for `duration` or until cancelled. True when the whole duration passed.
    bool waitFor(std::chrono::nanoseconds duration) const {
        std::unique_lock lock(state_->mutex);
        return !state_->changed.wait_for(lock, duration, [&] { return state_->cancelled; });
    }

private:
    struct State {
        mutable std::mutex mutex;
        std::condition_variable changed;
        bool cancelled = false;  // guarded by mutex
    };
    std::shared_ptr<State> state_;
};

// A timed sleep that ends early when the given token is cancelled. Returns true when the whole
// duration passed, false when cancelled (the "sleep threw" case). Any thread; blocks the caller.
class Sleeper {
public:
    virtual ~Sleeper() = default;
    virtual bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) = 0;
};

// The process's dispatch services. Owned by whoever wires the program (main or a test).
class Dispatch {
public:
    virtual ~Dispatch() = default;
    // The event loop's queue: runs closures later on the main thread, in submission order.
    virtual SerialQueue& mainQueue() = 0;
    // The shared background executor (a few threads).
    virtual Executor& backgroundExecutor() = 0;
    // A new serial queue with its own thread; the caller owns it.
    virtual std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                         QualityOfService qos) = 0;
    virtual Sleeper& sleeper() = 0;
};

}  // namespace gb
