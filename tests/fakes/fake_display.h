// A main display with a settable description, or none.
#pragma once

#include <mutex>
#include <optional>

#include "fakes/locked.h"
#include "platform/display.h"

namespace gb::fakes {

class FakeDisplayProvider final : public DisplayProvider {
public:
    FakeDisplayProvider() { setSize(1920, 1080); }

    [[nodiscard]] std::optional<MainScreen> mainScreen() const override {
        std::lock_guard lock(mutex_);
        return screen_;
    }
    // A display of this size in points, with display identifier 1.
    void setSize(double width, double height, uint32_t displayID = 1) {
        std::lock_guard lock(mutex_);
        MainScreen s;
        s.widthPoints = width;
        s.heightPoints = height;
        s.deviceDescription[kScreenNumberKey] = displayID;
        screen_ = s;
    }
    void setScreen(std::optional<MainScreen> screen) {
        lockedSet(mutex_, screen_, std::move(screen));
    }

private:
    mutable std::mutex mutex_;
    std::optional<MainScreen> screen_;  // guarded by mutex_
};

}  // namespace gb::fakes
