// The Linux capture factory's device inputs, and the session-type and scale-factor rules.
#include "linux/linux_capture_factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/capture_source.h"
#include "linux/x11_display.h"

namespace gb::linuxp {
namespace {

using ::testing::ElementsAre;

class MicInput final : public CaptureInput, public SourceBackedInput, public CaptureSource {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    [[nodiscard]] CaptureSource& captureSource() override { return *this; }
    Result<void> start(Deliver) override { return {}; }
    void stop() override {}
};

class PlainDevice : public CaptureDevice {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    [[nodiscard]] CameraDeviceInfo info() const override { return {}; }
    Result<void> lockForConfiguration() override { return {}; }
    void setActiveFormat(int) override {}
    void unlockForConfiguration() override {}
};

class MicDevice final : public PlainDevice, public InputMakingDevice {
public:
    Result<std::shared_ptr<CaptureInput>> makeInput() override {
        if (failure) return *failure;
        return std::shared_ptr<CaptureInput>(input);
    }
    std::shared_ptr<MicInput> input = std::make_shared<MicInput>();
    std::optional<PlatformError> failure;
};

TEST(LinuxCaptureFactoryTest, DeviceInputComesFromTheDeviceItselfOrIsAnError) {
    LinuxCaptureFactory factory;  // wired with nothing: no microphone, no camera
    EXPECT_EQ(factory.defaultAudioDevice(), nullptr);
    EXPECT_TRUE(factory.discoverVideoDevices().empty());
    auto mic = std::make_shared<MicDevice>();
    auto made = factory.makeDeviceInput(mic);
    ASSERT_TRUE(made.ok());
    EXPECT_EQ(made.value(), mic->input);
    EXPECT_TRUE(factory.makeSession()->canAddInput(made.value()));
    mic->failure = PlatformError{"pulse", 3, "Connection refused"};
    auto failed = factory.makeDeviceInput(mic);
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().localizedDescription, "Connection refused");
    auto plain = factory.makeDeviceInput(std::make_shared<PlainDevice>());
    ASSERT_FALSE(plain.ok());
    EXPECT_EQ(plain.error().localizedDescription,
              "This device cannot be opened as a capture input");
    EXPECT_FALSE(factory.makeDeviceInput(nullptr).ok());
}

TEST(LinuxCaptureFactoryTest, WaylandSessionGetsNoX11ScreenInput) {
    EXPECT_TRUE(isWaylandSession("wayland-0", "wayland"));
    EXPECT_FALSE(isWaylandSession("wayland-0", "x11"));  // X session that runs a nested compositor
    EXPECT_FALSE(isWaylandSession(nullptr, "wayland"));
    EXPECT_FALSE(isWaylandSession("", "wayland"));
    EXPECT_FALSE(isWaylandSession("wayland-0", nullptr));
    fakes::ScopedEnvironment environment;
    environment.set("WAYLAND_DISPLAY", "wayland-0");
    environment.set("XDG_SESSION_TYPE", "wayland");
    fakes::LogCapture log;
    EXPECT_EQ(LinuxCaptureFactory::x11ScreenInputMaker()(1), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("❌ Screen capture through X11 cannot see a Wayland session's windows"));
}

TEST(DesktopScaleFactorTest, GdkScaleWinsWhenAPositiveIntegerElseQtScaleMayBeReal) {
    EXPECT_EQ(desktopScaleFactor("2", "1.5"), 2.0);
    EXPECT_EQ(desktopScaleFactor("0", "1.5"), 1.5);
    EXPECT_EQ(desktopScaleFactor("1.5", "1.25"), 1.25);  // GTK takes integers only
    EXPECT_EQ(desktopScaleFactor("abc", nullptr), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "1.5"), 1.5);
    EXPECT_EQ(desktopScaleFactor(nullptr, "-2"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "inf"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "1.5x"), 1.0);
}

}  // namespace
}  // namespace gb::linuxp
