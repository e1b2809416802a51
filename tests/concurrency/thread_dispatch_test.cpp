// Guards against: a queue that deadlocks or crashes when its own last closure releases it.
#include "portable/thread_dispatch.h"

#include <gtest/gtest.h>

#include <future>

namespace gb {
namespace {

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

}  // namespace
}  // namespace gb
