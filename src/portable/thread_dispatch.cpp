#include "portable/thread_dispatch.h"

namespace gb {
namespace {
// The queue whose closure this thread is running, for isCurrent().
thread_local const void* tCurrentQueue = nullptr;

struct CurrentQueueScope {
    explicit CurrentQueueScope(const void* q) : previous(tCurrentQueue) { tCurrentQueue = q; }
    ~CurrentQueueScope() { tCurrentQueue = previous; }
    const void* previous;
};
}  // namespace

ThreadSerialQueue::ThreadSerialQueue(std::string label)
    : label_(std::move(label)),
      thread_([state = state_, queue = static_cast<const void*>(this)](std::stop_token st) {
          loop(state, queue, st);
      }) {}

ThreadSerialQueue::~ThreadSerialQueue() {
    thread_.request_stop();
    state_->wake.notify_all();
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();  // destroyed by its own last closure
        } else {
            thread_.join();
        }
    }
}

void ThreadSerialQueue::async(std::function<void()> work) {
    {
        std::lock_guard lock(state_->mutex);
        state_->pending.push_back(std::move(work));
    }
    state_->wake.notify_one();
}

bool ThreadSerialQueue::isCurrent() const { return tCurrentQueue == this; }

void ThreadSerialQueue::loop(const std::shared_ptr<State>& state, const void* queue,
                             std::stop_token stop) {
    CurrentQueueScope scope(queue);
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock lock(state->mutex);
            if (!state->wake.wait(lock, stop, [&] { return !state->pending.empty(); })) return;
            work = std::move(state->pending.front());
            state->pending.pop_front();
        }
        work();
    }
}

ThreadPoolExecutor::ThreadPoolExecutor(unsigned threads) {
    for (unsigned i = 0; i < (threads == 0 ? 1 : threads); ++i) {
        threads_.emplace_back([this](std::stop_token st) { loop(st); });
    }
}

ThreadPoolExecutor::~ThreadPoolExecutor() {
    for (auto& t : threads_) t.request_stop();
    wake_.notify_all();
    threads_.clear();  // joins
}

void ThreadPoolExecutor::async(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(work));
    }
    wake_.notify_one();
}

void ThreadPoolExecutor::loop(std::stop_token stop) {
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock lock(mutex_);
            if (!wake_.wait(lock, stop, [&] { return !pending_.empty(); })) return;
            work = std::move(pending_.front());
            pending_.pop_front();
        }
        work();
    }
}

void RunLoopQueue::async(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(work));
    }
    wake_.notify_one();
}

bool RunLoopQueue::isCurrent() const { return tCurrentQueue == this; }

void RunLoopQueue::run() {
    CurrentQueueScope scope(this);
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [&] { return !pending_.empty() || quitting_; });
            if (pending_.empty()) {
                quitting_ = false;
                return;
            }
            work = std::move(pending_.front());
            pending_.pop_front();
        }
        work();
    }
}

void RunLoopQueue::quit() {
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    wake_.notify_all();
}

}  // namespace gb
