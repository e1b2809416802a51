// A synthetic camera for machines without one (CI, demos, end-to-end tests): colour bars in a
// bright border with a sweeping block and a counter, 30 frames a second, drawn into pooled BGRA
// frames. Its name contains "virtual", so a real camera that can be used always wins over it.
// It exists only when asked for (`glimmerbox record --test-camera`, GLIMMERBOX_TEST_CAMERA=1).
//
// Threads: the device's methods may be called from any thread. Each capture draws on its own
// thread, paced by absolute deadlines on the monotonic clock and stamped from it; it never waits
// for anybody downstream (a frame with no free pool slot is dropped and counted).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "linux/capture/capture_source.h"
#include "platform/capture.h"

namespace gb::linuxp {

inline constexpr const char* kTestCameraName = "Glimmerbox Virtual Test Camera";
inline constexpr const char* kTestCameraUniqueID = "glimmerbox-test-camera";
inline constexpr int kTestCameraFramesPerSecond = 30;

class TestCameraDevice final : public CaptureDevice, public InputMakingDevice {
public:
    // Shared with the inputs made from the device.
    struct State {
        mutable std::mutex mutex;
        int activeFormatIndex = 0;  // guarded by mutex
    };

    TestCameraDevice() : state_(std::make_shared<State>()) {}

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    // 1280x720 (active at first), 640x480 and 1920x1080; always connected, never suspended.
    [[nodiscard]] CameraDeviceInfo info() const override;
    [[nodiscard]] Result<void> lockForConfiguration() override { return {}; }
    void setActiveFormat(int formatIndex) override;
    void unlockForConfiguration() override {}
    [[nodiscard]] Result<std::shared_ptr<CaptureInput>> makeInput() override;

private:
    std::shared_ptr<State> state_;
};

[[nodiscard]] CaptureDeviceRef makeTestCamera();

// Draws frame `frameNumber` (at 30 per second) of the pattern into a BGRA image. Every pixel is
// opaque and strongly coloured; the parts that move are large even-aligned blocks, so they
// survive 4:2:0 chroma subsampling.
void drawTestCameraFrame(uint8_t* pixels, int width, int height, size_t bytesPerRow,
                         uint64_t frameNumber);

}  // namespace gb::linuxp
