// What a capture source delivered: the count and the last sample; waits for arrivals. Also reaches
// the source behind a capture input. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "linux/capture/capture_source.h"
#include "platform/media.h"

namespace gb::fakes {

inline linuxp::CaptureSource& sourceOf(const std::shared_ptr<CaptureInput>& input) {
    return dynamic_cast<linuxp::SourceBackedInput&>(*input).captureSource();
}

class FrameCollector {
public:
    std::function<void(const SampleBufferRef&)> deliver() {
        return [this](const SampleBufferRef& sample) {
            std::lock_guard lock(mutex_);
            last_ = sample;
            ++count_;
            changed_.notify_all();
        };
    }
    bool waitForCount(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= n; });
    }
    [[nodiscard]] size_t count() const { return get(count_); }
    [[nodiscard]] SampleBufferRef last() const { return get(last_); }

private:
    template <class T>
    T get(const T& field) const {
        std::lock_guard lock(mutex_);
        return field;
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    size_t count_ = 0;                     // guarded by mutex_
    SampleBufferRef last_;                 // guarded by mutex_
};

}  // namespace gb::fakes
