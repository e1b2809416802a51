// Capture access requests answered per media type: at once on the caller's thread, later on a
// thread of its own, or never (the completion is dropped). Counts every request. Thread-safe.
#pragma once

#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "fakes/locked.h"
#include "platform/access.h"

namespace gb::fakes {

class FakeAccessRequester final : public AccessRequester {
public:
    enum class Delivery { synchronous, otherThread, never };

    ~FakeAccessRequester() override {
        std::vector<std::jthread> threads;
        {
            std::lock_guard lock(mutex_);
            threads.swap(threads_);
        }
        // joined here
    }

    void requestAccess(MediaType type, std::function<void(bool granted)> completion) override {
        bool granted = false;
        Delivery delivery;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(type);
            ++unanswered_;
            if (unanswered_ > maxUnanswered_) maxUnanswered_ = unanswered_;
            granted = answers_[type];
            delivery = delivery_;
        }
        switch (delivery) {
            case Delivery::synchronous:
                answered();
                completion(granted);
                break;
            case Delivery::otherThread: {
                std::lock_guard lock(mutex_);
                threads_.emplace_back([this, granted, completion = std::move(completion)] {
                    answered();
                    completion(granted);
                });
                break;
            }
            case Delivery::never:
                answered();
                completion = nullptr;  // dropped unanswered
                break;
        }
    }

    void setAnswer(MediaType type, bool granted) {
        std::lock_guard lock(mutex_);
        answers_[type] = granted;
    }
    void grantAll() {
        setAnswer(MediaType::audio, true);
        setAnswer(MediaType::video, true);
    }
    void setDelivery(Delivery delivery) { lockedSet(mutex_, delivery_, delivery); }

    [[nodiscard]] std::vector<MediaType> requests() const { return lockedCopy(mutex_, requests_); }
    [[nodiscard]] size_t requestCount(MediaType type) const {
        std::lock_guard lock(mutex_);
        size_t n = 0;
        for (auto t : requests_) n += t == type ? 1 : 0;
        return n;
    }
    // The most requests that were waiting for an answer at the same time.
    [[nodiscard]] int maxUnanswered() const { return lockedCopy(mutex_, maxUnanswered_); }

private:
    void answered() {
        std::lock_guard lock(mutex_);
        --unanswered_;
    }

    mutable std::mutex mutex_;
    std::map<MediaType, bool> answers_;          // guarded by mutex_; absent: refused
    Delivery delivery_ = Delivery::synchronous;  // guarded by mutex_
    std::vector<MediaType> requests_;            // guarded by mutex_
    int unanswered_ = 0;                         // guarded by mutex_
    int maxUnanswered_ = 0;                      // guarded by mutex_
    std::vector<std::jthread> threads_;          // guarded by mutex_
};

}  // namespace gb::fakes
