#include "capture/camera_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_capture_platform.h"
#include "fakes/log_capture.h"

namespace gb {
namespace {

using fakes::cameraInfo;
using fakes::FakeCaptureDevice;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

std::shared_ptr<FakeCaptureDevice> camera(std::string name, std::string id = "id",
                                          bool connected = true, bool suspended = false,
                                          std::vector<CameraFormat> formats = {{1280, 720}}) {
    return std::make_shared<FakeCaptureDevice>(
        cameraInfo(std::move(name), std::move(id), std::move(formats), connected, suspended));
}

class CameraManagerTest : public ::testing::Test {
protected:
    fakes::FakeCaptureFactory factory;
    CameraManager manager{factory};
    fakes::LogCapture log;
};

// Usable first, then built-in, external, virtual; within a category the discovery order.
TEST_F(CameraManagerTest, SelectionByUsabilityCategoryAndDiscoveryOrder) {
    auto builtInSuspended = camera("FaceTime HD Camera", "a", true, /*suspended=*/true);
    auto externalA = camera("USB Camera A", "ea");
    EXPECT_EQ(manager.selectBestCamera({builtInSuspended, externalA}), externalA);
    EXPECT_THAT(log.lines(), ElementsAre("🎯 Selecting best camera from 2 available devices...",
                                         "📊 Camera categorization:", "   Built-in cameras: 1",
                                         "   External cameras: 1", "   Virtual cameras: 0",
                                         "✅ Selected external camera: USB Camera A"));
    auto virtualCam = camera("Lobster Cam", "v");
    auto builtInOff = camera("FaceTime HD Camera", "b1", /*connected=*/false);
    auto builtIn = camera("Built-in Camera", "b2");
    auto externalB = camera("USB Camera B", "eb");
    EXPECT_EQ(manager.selectBestCamera({virtualCam, externalA, builtInOff, builtIn, externalB}),
              builtIn);
    EXPECT_EQ(log.lines().back(), "✅ Selected built-in camera: Built-in Camera");
    EXPECT_EQ(manager.selectBestCamera({builtInSuspended, virtualCam}), virtualCam);
    EXPECT_EQ(log.lines().back(),
              "⚠️ Selected virtual camera: Lobster Cam (may contain screen content)");
    EXPECT_EQ(manager.selectBestCamera({builtInOff, camera("OBS", "v", true, true)}), nullptr);
    EXPECT_EQ(log.lines().back(), "❌ No suitable camera found");
}

TEST_F(CameraManagerTest, FormatChoiceAndItsLines) {
    using P = CameraOverlayPreset;
    const struct {
        P preset;
        std::vector<CameraFormat> formats;
        int chosen;      // -1: unchanged
        bool preferred;  // found by size (logged), not by the fallback
    } cases[] = {
        {P::small, {{1280, 720}, {640, 480}}, 1, true},                  // preset size first
        {P::large, {{320, 240}, {960, 540}, {1280, 720}}, 2, true},      // then the preference list
        {P::medium, {{3840, 2160}, {1024, 768}, {800, 600}}, 2, false},  // smallest below limits
        {P::medium, {{3840, 2160}}, -1, false},
        {P::small, {}, -1, false},
    };
    for (const auto& c : cases) {
        log.clear();
        auto device = camera("USB", "e", true, false, c.formats);
        manager.configureOptimalFormat(device, c.preset);
        const char* names[] = {"small", "medium", "large"};
        Strings expected{std::string("🔧 Configuring optimal camera format for ") +
                         names[static_cast<int>(c.preset)] + "..."};
        if (c.chosen < 0) {
            EXPECT_THAT(device->activeFormatChanges(), IsEmpty());
            EXPECT_EQ(device->lockCount(), 0);
            expected.push_back("⚠️ No suitable camera format found, using default");
        } else {
            EXPECT_THAT(device->activeFormatChanges(), ElementsAre(c.chosen));
            EXPECT_EQ(device->unlockCount(), 1);
            EXPECT_EQ(device->unlockedChanges(), 0);
            const CameraFormat f = c.formats[static_cast<size_t>(c.chosen)];
            const std::string size = std::to_string(f.width) + "x" + std::to_string(f.height);
            if (c.preferred) expected.push_back("✅ Found preferred format: " + size);
            expected.push_back("🎯 Setting camera to format: " + size);
            expected.push_back("✅ Camera format configured successfully");
        }
        EXPECT_EQ(log.lines(), expected) << c.formats.size();
    }
}

}  // namespace
}  // namespace gb
