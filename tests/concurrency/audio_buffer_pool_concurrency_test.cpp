// Guards against: data races and lost reuse when the capture thread takes pool buffers that consumers release on other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "portable/audio_buffer_pool.h"

namespace gb {
namespace {

TEST(AudioBufferPoolConcurrencyTest, BuffersReleasedOnOtherThreadsAreReused) {
    constexpr size_t kCapacity = 8;
    constexpr int kChunks = 20'000;
    auto pool = AudioBufferPool::make(kCapacity, 256);
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::shared_ptr<const AudioBuffer>> handed;  // guarded by mutex
    bool done = false;                                      // guarded by mutex
    std::atomic<int> checked{0};
    auto consumer = [&] {
        for (;;) {
            std::shared_ptr<const AudioBuffer> buffer;
            {
                std::unique_lock lock(mutex);
                ready.wait(lock, [&] { return !handed.empty() || done; });
                if (handed.empty()) return;
                buffer = std::move(handed.front());
                handed.pop_front();
            }
            if (buffer->data.size() == 256 && buffer->data[0] == buffer->data[255]) ++checked;
        }  // released here, on this thread
    };
    std::thread first(consumer);
    std::thread second(consumer);
    int delivered = 0;
    for (int i = 0; i < kChunks; ++i) {
        auto buffer = pool->acquire();
        if (!buffer) continue;  // all in use: dropped, as the capture thread does
        buffer->data.assign(256, static_cast<uint8_t>(i));
        {
            std::lock_guard lock(mutex);
            handed.push_back(std::move(buffer));
        }
        ready.notify_one();
        ++delivered;
    }
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    ready.notify_all();
    first.join();
    second.join();
    EXPECT_EQ(checked.load(), delivered);
    EXPECT_LE(pool->allocations(), kCapacity);
    EXPECT_GT(delivered, 0);
}

}  // namespace
}  // namespace gb
