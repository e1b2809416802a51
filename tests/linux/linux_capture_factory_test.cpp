// The Linux capture factory's composition, and the session-type and scale-factor rules.
#include "linux/linux_capture_factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "linux/capture_source.h"
#include "linux/linux_capture_session.h"
#include "linux/x11_display.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

using ::testing::ElementsAre;

class NullSource final : public CaptureSource {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    Result<void> start(Deliver) override { return {}; }
    void stop() override {}
};

class MicInput final : public CaptureInput, public SourceBackedInput {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    [[nodiscard]] CaptureSource& captureSource() override { return source; }
    NullSource source;
};

class FakeDevice : public CaptureDevice {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
    [[nodiscard]] CameraDeviceInfo info() const override { return {}; }
    Result<void> lockForConfiguration() override { return {}; }
    void setActiveFormat(int) override {}
    void unlockForConfiguration() override {}
};

class MicDevice final : public FakeDevice, public InputMakingDevice {
public:
    Result<std::shared_ptr<CaptureInput>> makeInput() override {
        if (failure) return *failure;
        return std::shared_ptr<CaptureInput>(input);
    }
    std::shared_ptr<MicInput> input = std::make_shared<MicInput>();
    std::optional<PlatformError> failure;
};

// Sets an environment variable for the life of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedEnv() {
        if (old_) {
            setenv(name_.c_str(), old_->c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

TEST(LinuxCaptureFactoryTest, HasNoMicrophoneOrCameraUnlessWiredWithThem) {
    LinuxCaptureFactory factory;
    EXPECT_EQ(factory.defaultAudioDevice(), nullptr);
    EXPECT_TRUE(factory.discoverVideoDevices().empty());
}

TEST(LinuxCaptureFactoryTest, AsksTheProvidersEachTime) {
    auto mic = std::make_shared<MicDevice>();
    auto cam1 = std::make_shared<MicDevice>();
    auto cam2 = std::make_shared<MicDevice>();
    int micCalls = 0;
    LinuxCaptureFactory::Parts parts;
    parts.defaultMicrophone = [&]() -> CaptureDeviceRef {
        ++micCalls;
        return mic;
    };
    parts.cameras = [&]() -> std::vector<CaptureDeviceRef> { return {cam1, cam2}; };
    LinuxCaptureFactory factory(parts);
    EXPECT_EQ(factory.defaultAudioDevice(), mic);
    EXPECT_EQ(factory.defaultAudioDevice(), mic);
    EXPECT_EQ(micCalls, 2);
    EXPECT_THAT(factory.discoverVideoDevices(), ElementsAre(cam1, cam2));
}

TEST(LinuxCaptureFactoryTest, DeviceInputComesFromTheDeviceItself) {
    LinuxCaptureFactory factory;
    auto mic = std::make_shared<MicDevice>();
    auto made = factory.makeDeviceInput(mic);
    ASSERT_TRUE(made.ok());
    EXPECT_EQ(made.value(), mic->input);

    mic->failure = PlatformError{"pulse", 3, "Connection refused"};
    auto failed = factory.makeDeviceInput(mic);
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().localizedDescription, "Connection refused");
}

TEST(LinuxCaptureFactoryTest, DeviceThatMakesNoInputGivesAnError) {
    LinuxCaptureFactory factory;
    auto plain = factory.makeDeviceInput(std::make_shared<FakeDevice>());
    ASSERT_FALSE(plain.ok());
    EXPECT_EQ(plain.error().localizedDescription,
              "This device cannot be opened as a capture input");
    EXPECT_FALSE(factory.makeDeviceInput(nullptr).ok());
}

TEST(LinuxCaptureFactoryTest, SessionsAndOutputsFitTogether) {
    LinuxCaptureFactory factory;
    auto session = factory.makeSession();
    auto video = factory.makeVideoDataOutput();
    auto audio = factory.makeAudioDataOutput();
    EXPECT_EQ(video->mediaType(), MediaType::video);
    EXPECT_EQ(audio->mediaType(), MediaType::audio);
    EXPECT_TRUE(session->canAddOutput(video));
    EXPECT_TRUE(session->canAddOutput(audio));
    EXPECT_NE(factory.makeVideoDataOutput(), video);  // a new one each time
    auto input = factory.makeDeviceInput(std::make_shared<MicDevice>());
    ASSERT_TRUE(input.ok());
    EXPECT_TRUE(session->canAddInput(input.value()));
    EXPECT_FALSE(session->isRunning());
}

TEST(LinuxCaptureFactoryTest, ScreenInputComesFromTheMaker) {
    std::vector<uint32_t> asked;
    LinuxCaptureFactory::Parts parts;
    parts.screenInputMaker = [&](uint32_t id) -> std::shared_ptr<ScreenInput> {
        asked.push_back(id);
        return nullptr;
    };
    LinuxCaptureFactory factory(parts);
    EXPECT_EQ(factory.makeScreenInput(42), nullptr);
    EXPECT_THAT(asked, ElementsAre(42u));
}

TEST(LinuxCaptureFactoryTest, WaylandSessionGetsNoX11ScreenInput) {
    ScopedEnv wayland("WAYLAND_DISPLAY", "wayland-0");
    ScopedEnv type("XDG_SESSION_TYPE", "wayland");
    std::vector<std::string> lines;
    LogSink previous = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
    auto input = LinuxCaptureFactory::x11ScreenInputMaker()(1);
    setLogSink(std::move(previous));
    EXPECT_EQ(input, nullptr);
    EXPECT_THAT(lines,
                ElementsAre("❌ Screen capture through X11 cannot see a Wayland session's windows"));
}

TEST(SessionTypeTest, OnlyAWaylandSessionWithAWaylandDisplayCounts) {
    EXPECT_TRUE(isWaylandSession("wayland-0", "wayland"));
    EXPECT_FALSE(isWaylandSession("wayland-0", "x11"));  // X session that runs a nested compositor
    EXPECT_FALSE(isWaylandSession(nullptr, "wayland"));
    EXPECT_FALSE(isWaylandSession("", "wayland"));
    EXPECT_FALSE(isWaylandSession("wayland-0", nullptr));
    EXPECT_FALSE(isWaylandSession(nullptr, nullptr));
}

TEST(DesktopScaleFactorTest, GdkScaleWinsWhenItIsAPositiveInteger) {
    EXPECT_EQ(desktopScaleFactor("2", "1.5"), 2.0);
    EXPECT_EQ(desktopScaleFactor("1", nullptr), 1.0);
    EXPECT_EQ(desktopScaleFactor("0", "1.5"), 1.5);
    EXPECT_EQ(desktopScaleFactor("1.5", "1.25"), 1.25);  // GTK takes integers only
    EXPECT_EQ(desktopScaleFactor("abc", nullptr), 1.0);
}

TEST(DesktopScaleFactorTest, QtScaleFactorMayBeReal) {
    EXPECT_EQ(desktopScaleFactor(nullptr, "1.5"), 1.5);
    EXPECT_EQ(desktopScaleFactor("", "2"), 2.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "-2"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "0"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "inf"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "1.5x"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, nullptr), 1.0);
}

}  // namespace
}  // namespace gb::linuxp
