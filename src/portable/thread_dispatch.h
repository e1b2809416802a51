// Dispatch on plain threads: serial queues each on their own thread, a small pool for the
// background executor, a main queue that the main thread drains with run(), and a sleeper that
// wakes early on cancellation.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch.h"

namespace gb {

// A serial queue with its own thread. Pending work is dropped when the queue is destroyed;
// the work that is running finishes first. The queue may be destroyed by its own last closure:
// the thread keeps the shared state alive until it has left its loop.
class ThreadSerialQueue final : public SerialQueue {
public:
    explicit ThreadSerialQueue(std::string label);
    ~ThreadSerialQueue() override;
    ThreadSerialQueue(const ThreadSerialQueue&) = delete;
    ThreadSerialQueue& operator=(const ThreadSerialQueue&) = delete;

    void async(std::function<void()> work) override;
    [[nodiscard]] std::string label() const override { return label_; }
    [[nodiscard]] bool isCurrent() const override;

private:
    struct State {
        std::mutex mutex;
        std::condition_variable_any wake;
        std::deque<std::function<void()>> pending;  // guarded by mutex
    };
    static void loop(const std::shared_ptr<State>& state, const void* queue,
                     std::stop_token stop);

    const std::string label_;
    const std::shared_ptr<State> state_ = std::make_shared<State>();
    std::jthread thread_;  // last: starts after the fields above exist
};

// A fixed pool of threads running closures concurrently.
class ThreadPoolExecutor final : public Executor {
public:
    explicit ThreadPoolExecutor(unsigned threads);
    ~ThreadPoolExecutor() override;
    ThreadPoolExecutor(const ThreadPoolExecutor&) = delete;
    ThreadPoolExecutor& operator=(const ThreadPoolExecutor&) = delete;

    void async(std::function<void()> work) override;

private:
    void loop(std::stop_token stop);

    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<std::function<void()>> pending_;  // guarded by mutex_
    std::vector<std::jthread> threads_;
};

// The main queue of a program without a GUI toolkit: the main thread calls run(), which runs
// submitted closures in order until quit().
class RunLoopQueue final : public SerialQueue {
public:
    void async(std::function<void()> work) override;
    [[nodiscard]] std::string label() const override { return "main"; }
    [[nodiscard]] bool isCurrent() const override;
    // Runs closures until quit() was called and everything submitted before it has run.
    void run();
    void quit();

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> pending_;  // guarded by mutex_
    bool quitting_ = false;                      // guarded by mutex_
};

class TokenSleeper final : public Sleeper {
public:
    bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) override {
        return token.waitFor(duration);
    }
};

// Dispatch over the classes above, with an externally provided main queue.
class ThreadDispatch final : public Dispatch {
public:
    explicit ThreadDispatch(SerialQueue& mainQueue, unsigned backgroundThreads = 4)
        : main_(mainQueue), background_(backgroundThreads) {}

    SerialQueue& mainQueue() override { return main_; }
    Executor& backgroundExecutor() override { return background_; }
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                 QualityOfService) override {
        return std::make_shared<ThreadSerialQueue>(label);
    }
    Sleeper& sleeper() override { return sleeper_; }

private:
    SerialQueue& main_;
    ThreadPoolExecutor background_;
    TokenSleeper sleeper_;
};

}  // namespace gb
