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

// Names are matched after lower-casing, without word boundaries; the virtual test comes first;
// the identifier must contain CMIO in upper case.
TEST(CameraCategoryTest, VirtualRulesFirstThenBuiltInNamesElseExternal) {
    using C = CameraCategory;
    const struct {
        const char* name;
        const char* id;
        CameraCategory expected;
    } cases[] = {
        {"My VIRTUAL Cam", "0x1", C::virtualCamera},  {"Lobster Cam", "0x1", C::virtualCamera},
        {"mMhMm Camera", "0x1", C::virtualCamera},    {"ScreenCam", "0x1", C::virtualCamera},
        {"FaceTime Screen", "0x1", C::virtualCamera}, {"FACETIME HD Camera", "0x1", C::builtIn},
        {"Built-In Webcam", "0x1", C::builtIn},       {"Built In Webcam", "0x1", C::external},
        {"Logitech", "dev-CMIO-7", C::virtualCamera}, {"Logitech", "dev-cmio-7", C::external},
        {"FaceTime HD", "Cmio", C::builtIn},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CameraManager::category(cameraInfo(c.name, c.id)), c.expected) << c.name;
    }
}

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
    EXPECT_EQ(manager.selectBestCamera({virtualCam, externalB, externalA}), externalB);
    EXPECT_EQ(manager.selectBestCamera({builtInSuspended, virtualCam}), virtualCam);
    EXPECT_EQ(log.lines().back(),
              "⚠️ Selected virtual camera: Lobster Cam (may contain screen content)");
    EXPECT_EQ(manager.selectBestCamera({builtInOff, camera("OBS", "v", true, true)}), nullptr);
    EXPECT_EQ(log.lines().back(), "❌ No suitable camera found");
}

TEST_F(CameraManagerTest, ValidationWarningsInFixedOrder) {
    const CameraValidation all = manager.validateCamera(camera("Virtual Cam", "v", false, true));
    EXPECT_FALSE(all.isValid);
    EXPECT_THAT(all.warnings,
                ElementsAre("Camera appears to be virtual - may contain screen content",
                            "Camera is suspended", "Camera is not connected"));
    const CameraValidation virtualOk = manager.validateCamera(camera("mmhmm", "v"));
    EXPECT_TRUE(virtualOk.isValid);  // a virtual camera is only a warning
    EXPECT_EQ(virtualOk.warnings.size(), 1u);
    EXPECT_THAT(manager.validateCamera(camera("USB", "e")).warnings, IsEmpty());
    EXPECT_FALSE(manager.validateCamera(nullptr).isValid);
    EXPECT_THAT(manager.validateCamera(nullptr).warnings, ElementsAre("Camera is not connected"));
}

TEST_F(CameraManagerTest, FormatChoiceAndItsLines) {
    using P = CameraOverlayPreset;
    const struct {
        P preset;
        std::vector<CameraFormat> formats;
        int chosen;      // -1: unchanged
        bool preferred;  // found by size (logged), not by the fallback
    } cases[] = {
        {P::medium, {{1920, 1080}, {1280, 720}}, 1, true},
        {P::large, {{1280, 720}, {1920, 1080}}, 1, true},
        {P::small, {{1280, 720}, {640, 480}}, 1, true},                  // preset size first
        {P::large, {{320, 240}, {960, 540}, {1280, 720}}, 2, true},      // then the preference list
        {P::medium, {{800, 600}, {1280, 720}, {1280, 720}}, 1, true},    // first of equals
        {P::medium, {{3840, 2160}, {1024, 768}, {800, 600}}, 2, false},  // smallest below limits
        {P::medium, {{2560, 100}, {100, 1600}, {600, 800}, {800, 600}}, 2, false},  // exclusive
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

TEST_F(CameraManagerTest, FormatLockFailureThrowsThePlatformErrorAndChangesNothing) {
    auto device = camera("USB", "e", true, false, {{1920, 1080}, {1280, 720}});
    device->setLockFailure(PlatformError{"CaptureErrorDomain", -11852, "Cannot use USB"});
    try {
        manager.configureOptimalFormat(device, CameraOverlayPreset::medium);
        FAIL() << "expected a CameraConfigurationError";
    } catch (const CameraConfigurationError& e) {
        EXPECT_EQ(e.platformError().domain, "CaptureErrorDomain");
        EXPECT_EQ(e.platformError().code, -11852);
        EXPECT_STREQ(e.what(), "Cannot use USB");
    }
    EXPECT_THAT(device->activeFormatChanges(), IsEmpty());
    EXPECT_EQ(device->unlockCount(), 0);
}

TEST_F(CameraManagerTest, ListsEveryDeviceThenSelects) {
    auto eight = camera("FaceTime HD Camera", "0x8020000005ac8514", true, false,
                        {{640, 480},
                         {1280, 720},
                         {1920, 1080},
                         {320, 240},
                         {960, 540},
                         {1024, 768},
                         {800, 600},
                         {352, 288}});
    CameraDeviceInfo info = eight->info();
    info.position = 2;
    info.activeFormatIndex = 1;
    eight->setInfo(info);
    auto six = camera("USB Camera", "usb-1", false, true,
                      {{640, 480}, {1280, 720}, {1920, 1080}, {320, 240}, {960, 540}, {800, 600}});
    factory.setCameras({eight, six});
    const int readsBefore = eight->infoReads();
    EXPECT_EQ(manager.findBestCamera(), eight);
    EXPECT_EQ(eight->infoReads() - readsBefore, 1);  // one reading per operation
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "🔍 Available camera devices:", "  0: FaceTime HD Camera - ID: 0x8020000005ac8514",
            "     Position: 2, Connected: true", "     Suspended: false",
            "     Active format: 1280x720", "     Available formats:", "       [0]: 640x480",
            "       [1]: 1280x720 (ACTIVE)", "       [2]: 1920x1080", "       [3]: 320x240",
            "       [4]: 960x540", "       [5]: 1024x768", "       ... and 2 more formats",
            "  1: USB Camera - ID: usb-1", "     Position: 0, Connected: false",
            "     Suspended: true", "     Active format: 640x480", "     Available formats:",
            "       [0]: 640x480 (ACTIVE)", "       [1]: 1280x720", "       [2]: 1920x1080",
            "       [3]: 320x240", "       [4]: 960x540", "       [5]: 800x600",
            "       ... and 0 more formats", "🎯 Selecting best camera from 2 available devices...",
            "📊 Camera categorization:", "   Built-in cameras: 1", "   External cameras: 1",
            "   Virtual cameras: 0", "✅ Selected built-in camera: FaceTime HD Camera"));
}

}  // namespace
}  // namespace gb
