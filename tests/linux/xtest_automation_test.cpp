// The editor automation against a private Xvfb with fake_editor as the editor. Activation
// through a window manager is covered by the tray end-to-end test.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "automation/system_events_scripts.h"
#include "fakes/test_environment.h"
#include "fakes/xvfb_server.h"
#include "linux/x11/x11_accessibility.h"
#include "linux/x11/x11_application_finder.h"
#include "linux/x11/xtest_script_runner.h"

namespace gb::linuxp {
namespace {

using fakes::ChildProcess;
using fakes::eventually;
using fakes::toolPath;
using Lines = std::vector<std::string>;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";

// A private X server on which the test starts fake editors.
class XAutomationTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists(toolPath("fake_editor")))
            << "build the fake_editor tool next to " << toolPath("");
        ASSERT_NE(xvfb_, nullptr);
        finder = std::make_unique<X11ApplicationFinder>(name());
        runner = std::make_unique<XTestScriptRunner>(name());
    }

    // Starts a fake editor with this WM_CLASS class; its key log is `<windowClass>.log`.
    ChildProcess& startEditor(const std::string& windowClass) {
        ChildProcess::Options options;
        options.environment = {{"DISPLAY", name()}};
        editors_.push_back(
            std::make_unique<ChildProcess>(Lines{toolPath("fake_editor"), "--class", windowClass,
                                                 "--log", scratch_ / (windowClass + ".log")},
                                           options));
        return *editors_.back();
    }

    bool startAndActivateCode() {
        startEditor("Code");
        const auto found = waitForApplications(kStable, 1);
        return found.size() == 1 && found.front()->activate();
    }

    // Waits until the editor's key log has `count` lines and returns them (fewer on timeout).
    Lines waitForKeys(size_t count) const {
        Lines lines;
        eventually([&] {
            lines.clear();
            std::ifstream file(scratch_ / "Code.log");
            for (std::string line; std::getline(file, line);) lines.push_back(line);
            return lines.size() >= count;
        });
        return lines;
    }

    // Waits until the finder reports exactly `count` applications for the identifier.
    std::vector<RunningApplicationRef> waitForApplications(const std::string& bundleIdentifier,
                                                           size_t count) {
        std::vector<RunningApplicationRef> found;
        eventually([&] {
            found = finder->runningApplications(bundleIdentifier);
            return found.size() == count;
        });
        return found;
    }

    [[nodiscard]] const std::string& name() const { return xvfb_->displayName(); }

    std::unique_ptr<fakes::XvfbServer> xvfb_ = fakes::XvfbServer::start();
    fakes::TempDirectory scratch_;
    std::unique_ptr<X11ApplicationFinder> finder;
    std::unique_ptr<XTestScriptRunner> runner;
    std::vector<std::unique_ptr<ChildProcess>> editors_;
};

TEST_F(XAutomationTest, FinderFindsTheEditorByItsWindowClassAndAccessNeedsXTest) {
    EXPECT_TRUE(isAccessibilityTrustedX11(name()));
    EXPECT_FALSE(isAccessibilityTrustedX11(":32767"));  // no such server

    startEditor("Code");
    const auto stable = waitForApplications(kStable, 1);
    ASSERT_EQ(stable.size(), 1u);
    EXPECT_EQ(stable.front()->bundleIdentifier(), kStable);
    EXPECT_TRUE(finder->runningApplications(kInsiders).empty());

    startEditor("VSCodium");
    EXPECT_EQ(waitForApplications(kOss, 1).size(), 1u);

    editors_.front()->stop();  // an editor that quits is no longer found
    EXPECT_TRUE(waitForApplications(kStable, 0).empty());
}

TEST_F(XAutomationTest, ScriptsItCannotRunFailAndTypeNothingAndTheToggleTypesTheCommand) {
    ASSERT_TRUE(startAndActivateCode());
    for (const std::string& script :
         Lines{"tell application \"Finder\"\n    keystroke \"x\"\nend tell",
               "tell application \"System Events\"\n    keystroke \"unterminated\nend tell",
               std::string(scripts::kCommandPalette) + "\n    key code 36"}) {
        const ScriptOutcome outcome = runner->run(script);
        EXPECT_EQ(outcome.kind, ScriptOutcome::Kind::failed) << script;
        EXPECT_FALSE(outcome.errorDescription.empty());
    }

    for (const std::string& script :
         {std::string(scripts::kCommandPalette), scripts::typeTextScript("Toggle Screencast Mode"),
          scripts::pressKeyScript(36)}) {
        const ScriptOutcome outcome = runner->run(script);
        EXPECT_EQ(outcome.kind, ScriptOutcome::Kind::succeeded) << outcome.errorDescription;
    }
    Lines toggle{"key ctrl+shift+p"};
    for (const char c : std::string("Toggle Screencast Mode"))
        toggle.push_back(c == ' ' ? "key space" : std::string("key ") + c);
    toggle.push_back("key Return");
    EXPECT_EQ(waitForKeys(toggle.size()), toggle);
}

}  // namespace
}  // namespace gb::linuxp
