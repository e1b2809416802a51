// Helpers for the camera tests: captured log lines and a receiver of delivered frames.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "linux/capture_source.h"
#include "recording/log.h"

namespace gb::test {

// Collects every log line while it lives.
class LogCapture {
public:
    LogCapture() {
        previous_ = setLogSink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
            changed_.notify_all();
        });
    }
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    [[nodiscard]] std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    [[nodiscard]] size_t count(std::string_view needle) const {
        std::lock_guard lock(mutex_);
        size_t n = 0;
        for (const auto& line : lines_) n += line.find(needle) != std::string::npos ? 1 : 0;
        return n;
    }
    bool waitFor(std::string_view needle,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            for (const auto& line : lines_) {
                if (line.find(needle) != std::string::npos) return true;
            }
            return false;
        });
    }

private:
    LogSink previous_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;  // guarded by mutex_
};

// Receives a source's frames. Holding keeps every sample alive (as a slow consumer would);
// otherwise only the last one is kept.
class FrameCollector {
public:
    explicit FrameCollector(bool holdAll = false) : holdAll_(holdAll) {}

    linuxp::CaptureSource::Deliver deliver() {
        return [this](const SampleBufferRef& sample) {
            std::lock_guard lock(mutex_);
            ++count_;
            if (sample && sample->imageBuffer()) {
                addresses_.insert(sample->imageBuffer()->baseAddress());
            }
            times_.push_back(sample ? sample->presentationTime().nanoseconds() : 0);
            if (holdAll_) held_.push_back(sample);
            last_ = sample;
            changed_.notify_all();
        };
    }
    bool waitForCount(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ >= n; });
    }
    [[nodiscard]] size_t count() const {
        std::lock_guard lock(mutex_);
        return count_;
    }
    [[nodiscard]] SampleBufferRef last() const {
        std::lock_guard lock(mutex_);
        return last_;
    }
    [[nodiscard]] std::vector<SampleBufferRef> held() const {
        std::lock_guard lock(mutex_);
        return held_;
    }
    [[nodiscard]] std::vector<int64_t> timesNanoseconds() const {
        std::lock_guard lock(mutex_);
        return times_;
    }
    [[nodiscard]] size_t distinctAddresses() const {
        std::lock_guard lock(mutex_);
        return addresses_.size();
    }
    void release() {
        std::lock_guard lock(mutex_);
        held_.clear();
        last_.reset();
    }

private:
    const bool holdAll_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    size_t count_ = 0;                    // guarded by mutex_
    std::vector<SampleBufferRef> held_;   // guarded by mutex_
    SampleBufferRef last_;                // guarded by mutex_
    std::vector<int64_t> times_;          // guarded by mutex_
    std::set<const uint8_t*> addresses_;  // guarded by mutex_
};

// Blue, green, red, alpha of one pixel.
struct Bgra {
    int b, g, r, a;
};
inline Bgra pixelAt(const PixelBuffer& image, int x, int y) {
    const uint8_t* p = image.baseAddress() + static_cast<size_t>(y) * image.bytesPerRow() +
                       static_cast<size_t>(x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

}  // namespace gb::test
