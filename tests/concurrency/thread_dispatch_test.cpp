// The threaded dispatch that the program runs on: order, identity, cancellation, and a queue
// released by its own last closure.
#include "linux/portable/thread_dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace gb {
namespace {

using namespace std::chrono_literals;

TEST(ThreadDispatchTest, SerialQueueRunsInOrderOnItsOwnThread) {
    ThreadSerialQueue queue("glimmerbox.test");
    std::vector<int> seen;  // written only on the queue
    std::promise<void> done;
    for (int i = 0; i < 1000; ++i) {
        queue.async([&seen, &queue, i] {
            EXPECT_TRUE(queue.isCurrent());
            seen.push_back(i);
        });
    }
    queue.async([&] { done.set_value(); });
    done.get_future().wait();
    EXPECT_FALSE(queue.isCurrent());
    ASSERT_EQ(seen.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[i], i);
}

TEST(ThreadDispatchTest, QueueReleasedByItsOwnLastClosure) {
    for (int round = 0; round < 50; ++round) {
        auto holder = std::make_shared<std::shared_ptr<ThreadSerialQueue>>(
            std::make_shared<ThreadSerialQueue>("self-release"));
        std::weak_ptr<ThreadSerialQueue> watch = *holder;
        std::promise<bool> released;
        (*holder)->async([holder, watch, &released] {
            holder->reset();  // the last owner goes away inside the queue's own thread
            released.set_value(watch.expired());
        });
        EXPECT_TRUE(released.get_future().get());
    }
}

TEST(ThreadDispatchTest, CancelledSleepEndsEarly) {
    TokenSleeper sleeper;
    CancellationToken token;
    auto slept = std::async(std::launch::async, [&] { return sleeper.sleep(60s, token); });
    token.cancel();
    ASSERT_EQ(slept.wait_for(10s), std::future_status::ready) << "the sleep ignored cancellation";
    EXPECT_FALSE(slept.get());
    EXPECT_TRUE(sleeper.sleep(1ms, CancellationToken{}));
}

}  // namespace
}  // namespace gb
